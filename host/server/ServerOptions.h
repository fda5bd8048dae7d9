// The options of the server.

#pragma once

#include <chrono>
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

}  // namespace orv::host
