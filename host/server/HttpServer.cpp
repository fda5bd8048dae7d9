#include "host/server/HttpServer.h"

#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <csignal>

#include "host/files/ReadOnlyFile.h"
#include "host/server/Client.h"
#include "host/text/Failure.h"

namespace orv::host {

namespace {

// How often files that somebody else records are looked at while viewers wait for them to grow.
constexpr std::chrono::milliseconds kLookEvery{100};
// What the system holds for a connection beside what is under way to it: a slow viewer would be given
// megabytes.
constexpr int kMostUnsent = 256 << 10;
constexpr i64 kMostPlayerBytes = 16 << 20;

}  // namespace

struct HttpServer::Inside : ServerCore {
  explicit Inside(ServerOptions given)
      : ServerCore(std::move(given)),
        acceptor(network),
        signals(network, SIGINT, SIGTERM),
        looks(network),
        pause(network) {}

  void listen();
  void accept();
  void lookAgain();

  tcp::acceptor acceptor;
  asio::signal_set signals;
  asio::steady_timer looks;
  asio::steady_timer pause;
};

void HttpServer::Inside::listen() {
  error_code error;
  const auto address = asio::ip::make_address(options.address, error);
  if (error) throw hostFault(options.address + ": is not an address that can be listened on");
  const tcp::endpoint endpoint(address, options.port);
  acceptor.open(endpoint.protocol());
  acceptor.set_option(tcp::acceptor::reuse_address(true));
  acceptor.bind(endpoint, error);
  if (!error) acceptor.listen(asio::socket_base::max_listen_connections, error);
  if (error) throw hostFault(fmt::format("{}:{}: {}", options.address, options.port, error.message()));
}

void HttpServer::Inside::accept() {
  acceptor.async_accept([this](error_code error, tcp::socket socket) {
    if (error == asio::error::operation_aborted) return;
    if (!error) {
      error_code ignored;
      socket.set_option(tcp::no_delay(true), ignored);
      ::setsockopt(socket.native_handle(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, &kMostUnsent, sizeof kMostUnsent);
      const bool isFull = counters.connections >= options.mostConnections;
      const auto client = std::make_shared<Client>(*this, std::move(socket));
      if (isFull) {
        client->refuse({http::status::service_unavailable, "too many connections"});
      } else {
        client->readRequest();
      }
      return accept();
    }
    // Out of descriptors, perhaps: some will come back.
    pause.expires_after(kLookEvery);
    pause.async_wait([this](error_code) { accept(); });
  });
}

void HttpServer::Inside::lookAgain() {
  looks.expires_after(kLookEvery);
  looks.async_wait([this](error_code error) {
    if (error) return;
    asio::post(pool, [this] { library.wakeAll(); });
    lookAgain();
  });
}

HttpServer::HttpServer(ServerOptions options) : inside_(std::make_unique<Inside>(std::move(options))) {
  if (!inside_->options.playerFile.empty()) {
    const ReadOnlyFile file(inside_->options.playerFile);
    const i64 size = checkReadable(inside_->options.playerFile).size;
    const std::vector<u8> bytes =
        file.read(0, static_cast<std::size_t>(std::min<i64>(size, kMostPlayerBytes)));
    inside_->player.assign(bytes.begin(), bytes.end());
  }
  inside_->listen();
}

HttpServer::~HttpServer() = default;

std::string HttpServer::address() const {
  const tcp::endpoint here = inside_->acceptor.local_endpoint();
  const std::string host = here.address().to_string();
  return fmt::format("http://{}:{}/", here.address().is_v6() ? "[" + host + "]" : host, here.port());
}

void HttpServer::run() {
  inside_->signals.async_wait([this](error_code error, int) {
    if (!error) inside_->network.stop();
  });
  inside_->accept();
  inside_->lookAgain();
  inside_->network.run();
}

void HttpServer::stop() {
  inside_->network.stop();
}

}  // namespace orv::host
