// What all connections of a server share. Beast and Asio, which take long to compile, are for the sources
// behind this header alone.

#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/beast/http/status.hpp>
#include <functional>
#include <optional>
#include <string>

#include "host/server/ServerOptions.h"

namespace orv::host {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using tcp = asio::ip::tcp;
using boost::system::error_code;

struct Counters {
  u64 connections = 0;  // Open.
  u64 viewers = 0;      // Being sent media.
  u64 requests = 0;
  u64 refused = 0;
  u64 dropped = 0;  // For want of patience.
  u64 bytesSent = 0;
  u64 bytesPublished = 0;
};

// What a request comes to if it can't be served.
struct Refusal {
  http::status status;
  std::string text;
};

struct ServerCore {
  explicit ServerCore(ServerOptions given);
  ~ServerCore() { pool.join(); }

  // Does `work` where it may block; then calls `then` on the network's thread with its result, or with why
  // there is none.
  template <class Work, class Then>
  void ask(std::string name, Work work, Then then);
  std::string metrics() const;

  // What is under way on the network ends first, and its publications are flushed into the library then. What
  // they leave for the pool holds files of the library and is never done, but goes before it.
  const ServerOptions options;
  Library library;
  asio::thread_pool pool;
  Counters counters;  // Of the network's thread.
  std::string player;
  asio::io_context network;

 private:
  // Of the fault that is being handled, which `name` was asked for.
  Refusal refusalNow(const std::string& name) const;
};

template <class Work, class Then>
void ServerCore::ask(std::string name, Work work, Then then) {
  asio::post(pool, [this, name = std::move(name), work = std::move(work), then = std::move(then)]() mutable {
    using Result = decltype(work());
    std::optional<Result> result;
    std::optional<Refusal> refusal;
    try {
      result = work();
    } catch (...) {
      refusal = refusalNow(name);
    }
    asio::post(network,
               [then = std::move(then), result = std::move(result), refusal = std::move(refusal)]() mutable {
                 then(std::move(result), std::move(refusal));
               });
  });
}

}  // namespace orv::host
