// Serves a folder of FLV files over HTTP: plays them, files that grow included, and takes publishers'
// streams.

#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "host/server/Library.h"

namespace orv::host {

struct ServerOptions {
  LibraryOptions library;
  std::string address = "127.0.0.1";
  u16 port = 8080;  // 0: any free one.
  bool allowPublish = false;
  std::string token;       // Of publishers; empty: none is asked for.
  std::string playerFile;  // The page's player, a script; empty: the page lists only.
  unsigned moduleThreads = 4;
  unsigned mostConnections = 1000;
  std::chrono::seconds patience{30};  // With a client that neither sends nor takes anything.
};

// One thread does all network work; the module is called on others.
class HttpServer {
 public:
  // Listens. Throws Failure.
  explicit HttpServer(ServerOptions options);
  ~HttpServer();

  std::string address() const;  // "http://127.0.0.1:8080/"
  // Serves until SIGINT or SIGTERM, or until stop() is called on any thread. Recordings are flushed.
  void run();
  void stop();

 private:
  struct Inside;
  class Client;
  class Viewing;
  class Publishing;
  const std::unique_ptr<Inside> inside_;
};

}  // namespace orv::host
