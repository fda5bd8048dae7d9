#include <csignal>

#include "CommandLine.h"
#include "Console.h"

int main(int argc, char** argv) {
  // A reader that has gone and a file at its limit shall show as failed writes, which are told in words.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  orv::host::claimStandardOutput();
  return orv::host::runCommandLine(argc, argv);
}
