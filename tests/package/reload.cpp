// Loads, uses and unloads the module again and again: it must go each time, while threads that have been
// inside it live on and end later.
//
// usage: reload MODULE FILE, without the ".flv" of its name

#include <dlfcn.h>

#include <barrier>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "support/DiskHost.h"
#include "support/Module.h"

namespace {

using orv::test::Module;

// At once, whatever other threads wait for.
[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "%s\n", what);
  std::_Exit(1);
}

void playOnce(IQVStreamAdaptor& adaptor, const char* file) {
  orv::test::Stream stream(adaptor, file);
  const auto bounds = stream ? stream.atTime(3000) : std::nullopt;
  if (!bounds || stream.load(*bounds).empty()) fail("nothing delivered");
}

// `other` ends once `phase` is passed a second time.
void playTwiceAndUnload(const char* path, const char* file, std::barrier<>& phase, std::jthread& other) {
  orv::test::DiskHost host;
  const Module module(path);
  const auto adaptor = module.create(host);
  other = std::jthread([&phase, file, played = adaptor.get()] {
    playOnce(*played, file);
    phase.arrive_and_wait();  // Done inside the module,
    phase.arrive_and_wait();  // and it is gone: now the thread ends.
  });
  playOnce(*adaptor, file);
  phase.arrive_and_wait();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) fail("usage: reload MODULE FILE");
  constexpr int kRounds = 20;
  for (int round = 0; round < kRounds; ++round) {
    std::barrier phase(2);
    std::jthread other;
    playTwiceAndUnload(argv[1], argv[2], phase, other);
    if (dlopen(argv[1], RTLD_NOW | RTLD_NOLOAD)) fail("still loaded after dlclose");
    phase.arrive_and_wait();
  }
  std::printf("%d times loaded, used by two threads and unloaded\n", kRounds);
  return 0;
}
