#include <malloc.h>

#include <csignal>

#include "host/commands/CommandLine.h"
#include "host/text/Console.h"

namespace {

// Blocks of the size of a segment come and go with every load. Memory that stays with the program is warm;
// the C library would give it back and have the kernel clear fresh pages for each block.
void keepFreedMemory() {
  mallopt(M_MMAP_THRESHOLD, 32 << 20);  // The library's own limit; no tag is longer than 16 MiB.
  mallopt(M_TRIM_THRESHOLD, 256 << 20);
  mallopt(M_TOP_PAD, 1 << 20);
}

}  // namespace

int main(int argc, char** argv) {
  keepFreedMemory();
  // A reader that has gone and a file at its limit show as failed writes, which are reported in words.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  orv::host::claimStandardOutput();
  return orv::host::runCommandLine(argc, argv);
}
