// A web server on loopback that answers each request as the test says, with any bytes whatever.

#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace orv::test {

class WebServer {
 public:
  struct Request {
    std::string text;
    long first = 0;  // Of its range.
    long last = 0;
  };
  // The bytes to send. The connection is closed behind them unless they state a length, and don't hold
  // "close".
  using Handler = std::function<std::string(const Request&)>;

  explicit WebServer(Handler handler) : handler_(std::move(handler)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ::bind(listener_, reinterpret_cast<sockaddr*>(&address), size);
    ::listen(listener_, 16);
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
    url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    acceptor_ = std::thread([this] { accept(); });
  }
  ~WebServer() {
    stop_ = true;
    acceptor_.join();
    for (std::thread& thread : threads_) thread.join();
    ::close(listener_);
  }

  std::string url(const std::string& path = "/film.flv") const { return url_ + path; }
  int requests() const { return requests_; }
  int connections() const { return connections_; }

  // What a sound server answers about `bytes`.
  static std::string partial(const Request& request, const std::string& bytes, const std::string& etag) {
    const auto last = std::min<std::size_t>(static_cast<std::size_t>(request.last) + 1, bytes.size());
    const auto first = std::min(static_cast<std::size_t>(request.first), last);
    return "HTTP/1.1 206 Partial Content\r\nETag: " + etag +
           "\r\nContent-Length: " + std::to_string(last - first) + "\r\nContent-Range: bytes " +
           std::to_string(first) + "-" + std::to_string(last - 1) + "/" + std::to_string(bytes.size()) +
           "\r\n\r\n" + bytes.substr(first, last - first);
  }

 private:
  bool waitFor(int fd) const {
    pollfd watched{fd, POLLIN, 0};
    while (!stop_) {
      if (::poll(&watched, 1, 20) > 0) return true;
    }
    return false;
  }
  void accept() {
    while (waitFor(listener_)) {
      const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      ++connections_;
      threads_.emplace_back([this, fd] { serve(fd); });
    }
  }
  void serve(int fd) {
    std::string text;
    char chunk[4096];
    while (waitFor(fd)) {
      const ssize_t size = ::recv(fd, chunk, sizeof chunk, 0);
      if (size <= 0) break;
      text.append(chunk, static_cast<std::size_t>(size));
      if (text.find("\r\n\r\n") == std::string::npos) continue;
      ++requests_;
      Request request{std::move(text)};
      text.clear();
      std::sscanf(request.text.c_str() + request.text.find("Range: bytes="), "Range: bytes=%ld-%ld",
                  &request.first, &request.last);
      std::string reply;
      {
        const std::lock_guard lock(mutex_);
        reply = handler_(request);
      }
      for (std::size_t at = 0; at < reply.size();) {
        const ssize_t sent = ::send(fd, reply.data() + at, reply.size() - at, MSG_NOSIGNAL);
        if (sent <= 0) break;
        at += static_cast<std::size_t>(sent);
      }
      if (reply.find("Content-Length") == std::string::npos || reply.find("close") != std::string::npos)
        break;
    }
    ::close(fd);
  }

  const Handler handler_;
  int listener_;
  std::string url_;
  std::atomic<bool> stop_{false};
  std::atomic<int> requests_{0};
  std::atomic<int> connections_{0};
  std::mutex mutex_;
  std::vector<std::thread> threads_;  // The acceptor's.
  std::thread acceptor_;
};

}  // namespace orv::test
