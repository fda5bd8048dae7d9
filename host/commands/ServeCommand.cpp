#include "host/commands/Commands.h"
#include "host/server/HttpServer.h"
#include "host/text/Console.h"

namespace orv::host {

ExitCode runServe(const ServerOptions& options) {
  HttpServer server(options);
  print("serving " + options.library.folder + " at " + server.address() + "\n");
  flushOutput();
  server.run();
  return ExitCode::good;
}

}  // namespace orv::host
