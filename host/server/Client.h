// A connection of the server: its requests one behind the other, their answers, and its time.

#pragma once

#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

#include "host/server/Request.h"
#include "host/server/ServerCore.h"

namespace orv::host {

// Whatever is under way on it keeps it alive. Used by the network's thread alone.
class Client : public std::enable_shared_from_this<Client> {
 public:
  Client(ServerCore& of, tcp::socket connected)
      : core(of), socket(std::move(connected)), deadline_(socket.get_executor()) {
    ++core.counters.connections;
  }
  ~Client() { --core.counters.connections; }

  void readRequest();
  void answer(http::status status, const char* type, std::string body);
  void refuse(const Refusal& refusal) {
    ++core.counters.refused;
    answer(refusal.status, "text/plain; charset=utf-8", refusal.text + "\n");
  }
  // The connection ends if no one calls again in time.
  void expectWithin(std::chrono::seconds time);
  void expectNothing() { deadline_.cancel(); }
  void close();
  // For what was begun on the network's thread.
  template <class Handler>
  auto bound(Handler handler) {
    return [self = shared_from_this(), handler = std::move(handler)](error_code error,
                                                                     std::size_t size) mutable {
      self->expectNothing();
      handler(error, size);
    };
  }

  ServerCore& core;
  tcp::socket socket;
  boost::beast::flat_buffer buffer;
  std::optional<http::request_parser<http::buffer_body>> parser;

 private:
  void drain(std::size_t most);
  void dispatch();
  void answerFile(const ServerRequest& request);
  void publish(const ServerRequest& request);
  std::optional<Refusal> forbidsPublishing(const ServerRequest& request) const;

  asio::steady_timer deadline_;
  http::response<http::string_body> response_;
};

}  // namespace orv::host
