// Loads, uses and unloads the module again and again: it must go each time, while threads that have been
// inside it live on and end later.
//
// usage: reload MODULE FILE.flv

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <barrier>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "modules/streams/contract/Contract.h"

namespace {

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "%s\n", what);
  std::exit(1);
}

// Serves one file, whatever it is asked for.
class OneFile final : public IFileService {
 public:
  explicit OneFile(const char* path) : path_(path) {}
  int open(const char*, int, int, int) override { return ::open(path_, O_RDONLY | O_CLOEXEC); }
  int close(int fd, int) override { return ::close(fd); }
  int read(int fd, i64 position, void* data, u32 size) override {
    return static_cast<int>(::pread(fd, data, size, position));
  }
  int write(int, i64, const void*, u32) override { return -1; }
  int fstat(int, FileStat* record, int) override { return stat(nullptr, record, 0); }
  int stat(const char*, FileStat* record, int) override {
    struct stat native {};
    const int result = ::stat(path_, &native);
    *record = {};
    record->size = native.st_size;
    record->modificationTime = 1;
    return result;
  }
  int unlink(const char*, int) override { return -1; }
  void mkdir(const char*) override {}

 private:
  const char* path_;
};

class Context final : public IQVStreamContext {
 public:
  explicit Context(const char* path) : file_(path) {}
  void reserved() override {}
  int getConfigValue(const char*, char**, u32) override { return -1; }
  void logMessage(const char*, int, int) override {}
  IFileService* getFileService() override { return &file_; }

 private:
  OneFile file_;
};

class Sink final : public ISegmentHolder {
 public:
  int messages = 0;
  void onMessage(unsigned short, const void*, u32, u32) override { ++messages; }
  void reserved() override {}
};

void playOnce(IQVStreamAdaptor& module) {
  void* stream = nullptr;
  if (module.open("any", 0, nullptr, stream) != StreamLoadOk) fail("open failed");
  SegmentBounds bounds{};
  Sink sink;
  if (!module.findSegmentByTime(stream, 3000, &bounds)) fail("no segment");
  if (!module.loadSegment(stream, &bounds, &sink) || sink.messages == 0) fail("nothing delivered");
  module.close(stream);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) fail("usage: reload MODULE FILE.flv");
  constexpr int kRounds = 20;
  Context context(argv[2]);
  for (int round = 0; round < kRounds; ++round) {
    void* const library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (!library) fail(dlerror());
    const auto create = reinterpret_cast<decltype(&IQVCreateAdaptor)>(dlsym(library, "IQVCreateAdaptor"));
    IQVStreamAdaptor* module = nullptr;
    if (!create || create(&context, &module) != 1) fail("no adaptor");

    std::barrier phase(2);
    std::thread other([&] {
      playOnce(*module);
      phase.arrive_and_wait();  // Done inside the module,
      phase.arrive_and_wait();  // and it is gone: now the thread ends.
    });
    playOnce(*module);
    phase.arrive_and_wait();
    delete module;
    if (dlclose(library) != 0) fail(dlerror());
    if (dlopen(argv[1], RTLD_NOW | RTLD_NOLOAD)) fail("still loaded after dlclose");
    phase.arrive_and_wait();
    other.join();
  }
  std::printf("%d times loaded, used by two threads and unloaded\n", kRounds);
  return 0;
}
