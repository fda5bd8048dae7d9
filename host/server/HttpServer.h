// Serves a folder of FLV files over HTTP: plays them, files that grow included, and takes publishers'
// streams.

#pragma once

#include <memory>
#include <string>

#include "host/server/ServerOptions.h"

namespace orv::host {

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
  const std::unique_ptr<Inside> inside_;
};

}  // namespace orv::host
