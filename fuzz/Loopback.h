// Sockets on loopback for targets that speak HTTP.

#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "Choices.h"

namespace orv::test {

inline sockaddr_in loopback(u16 port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

// Closed on destruction.
class Connection {
 public:
  explicit Connection(int fd) : fd_(fd) {}
  Connection(Connection&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  ~Connection() {
    if (fd_ >= 0) ::close(fd_);
  }
  static Connection to(u16 port) {
    Connection made(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback(port);
    HOLDS(::connect(made.fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
    return made;
  }

  explicit operator bool() const { return fd_ >= 0; }
  // As far as the other side takes it.
  void send(std::string_view text) const {
    while (!text.empty()) {
      const ssize_t sent = ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL);
      if (sent <= 0) return;
      text.remove_prefix(static_cast<std::size_t>(sent));
    }
  }
  void endSending() const { ::shutdown(fd_, SHUT_WR); }
  // What comes until `mark` is among it, or until the end, as `isOver` says then.
  std::string receiveUntil(std::string_view mark, bool* isOver = nullptr) const {
    std::string text;
    char chunk[4096];
    pollfd watched{fd_, POLLIN, 0};
    while ((mark.empty() || text.find(mark) == std::string::npos) && ::poll(&watched, 1, kPatience) > 0) {
      const ssize_t got = ::recv(fd_, chunk, sizeof chunk, 0);
      if (isOver) *isOver = got <= 0;
      if (got <= 0) break;
      text.append(chunk, static_cast<std::size_t>(got));
    }
    return text;
  }

 private:
  static constexpr int kPatience = 60'000;  // Milliseconds. What takes so long hangs.

  int fd_;
};

class Listener {
 public:
  Listener() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    HOLDS(::bind(fd_, reinterpret_cast<sockaddr*>(&address), size) == 0 && ::listen(fd_, 16) == 0);
    HOLDS(::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size) == 0);
    port_ = ntohs(address.sin_port);
  }
  ~Listener() { ::close(fd_); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  u16 port() const { return port_; }
  // Empty once the listener was shut down.
  Connection accept() const { return Connection(::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)); }
  void shutDown() const { ::shutdown(fd_, SHUT_RDWR); }

 private:
  const int fd_;
  u16 port_ = 0;
};

}  // namespace orv::test
