// The least host there can be: loads the module, opens a file for playing and walks it from end to end.
//
// usage: tinyhost /absolute/path/of/a/file.flv

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "modules/streams/contract/Contract.h"

namespace {

// The module asks for "\films\clip.flv" where the disk has "/films/clip.flv".
std::string nativePath(std::string path) {
  std::replace(path.begin(), path.end(), '\\', '/');
  return path;
}

// Reading only. Every result of a failure is -1, which the module takes for an answer, not for an accident.
class DiskService final : public IFileService {
 public:
  int open(const char* path, int flags, int, int) override {
    if (flags != orv::openflags::readOnly) return -1;
    return ::open(nativePath(path).c_str(), O_RDONLY | O_CLOEXEC);
  }
  int close(int fd, int) override { return ::close(fd); }
  int read(int fd, i64 position, void* data, u32 size) override {
    return static_cast<int>(::pread(fd, data, size, position));
  }
  int write(int, i64, const void*, u32) override { return -1; }
  int fstat(int fd, FileStat* record, int) override {
    struct stat native;
    return ::fstat(fd, &native) == 0 ? fill(native, record) : -1;
  }
  int stat(const char* path, FileStat* record, int) override {
    struct stat native;
    return ::stat(nativePath(path).c_str(), &native) == 0 ? fill(native, record) : -1;
  }
  int unlink(const char*, int) override { return -1; }
  void mkdir(const char*) override {}

 private:
  // Two writes may fall into one tick of the kernel's clock, so the size has a part in the time.
  static int fill(const struct stat& native, FileStat* record) {
    std::memset(record, 0, sizeof *record);
    record->size = native.st_size;
    record->modificationTime = native.st_mtim.tv_sec * 1000000000 + native.st_mtim.tv_nsec + native.st_size;
    return 0;
  }
};

// No settings of its own: the module keeps its defaults.
class Context final : public IQVStreamContext {
 public:
  void reserved() override {}
  int getConfigValue(const char*, char**, u32) override { return -1; }
  void logMessage(const char* text, int level, int) override {
    std::fprintf(stderr, "module (%d): %s\n", level, text);
  }
  IFileService* getFileService() override { return &disk_; }

 private:
  DiskService disk_;
};

// Counts tags. A message is a tag's data, or an aggregate of type 22: a run of whole tags.
class Counter final : public ISegmentHolder {
 public:
  int audio = 0;
  int video = 0;

  void onMessage(unsigned short type, const void* data, u32 size, u32) override {
    if (type != 22) return count(type);
    const auto* const bytes = static_cast<const u8*>(data);
    for (u32 at = 0; at < size;) {
      const u8* const tag = bytes + at;
      count(tag[0]);
      at += (u32{tag[1]} << 16 | u32{tag[2]} << 8 | tag[3]) + 15;
    }
  }
  void reserved() override {}

 private:
  void count(unsigned type) {
    if ((type & 0x1F) == 8) ++audio;
    if ((type & 0x1F) == 9) ++video;
  }
};

int play(IQVStreamAdaptor& module, std::string path) {
  if (path.size() > 4 && path.compare(path.size() - 4, 4, ".flv") == 0) path.resize(path.size() - 4);
  std::replace(path.begin(), path.end(), '/', '\\');

  void* stream = nullptr;
  if (module.open(path.c_str(), 0, nullptr, stream) != StreamLoadOk) {
    std::fprintf(stderr, "no FLV file: %s\n", path.c_str());
    return 1;
  }
  Counter counter;
  int segments = 0;
  SegmentBounds bounds{};
  for (i64 at = 0; module.findSegmentByIndex(stream, at, &bounds); at = bounds.endPosition + 1) {
    if (!module.loadSegment(stream, &bounds, &counter)) std::fprintf(stderr, "a bad segment at %ld\n", at);
    ++segments;
  }
  std::printf("%ld bytes, %u ms, %d segments, %d audio tags, %d video tags\n", module.getSize(stream),
              module.getDuration(stream), segments, counter.audio, counter.video);
  module.close(stream);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  void* const library = dlopen(FLV_MODULE, RTLD_NOW | RTLD_LOCAL);
  if (!library) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 2;
  }
  const auto create = reinterpret_cast<decltype(&IQVCreateAdaptor)>(dlsym(library, "IQVCreateAdaptor"));
  if (!create) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 2;
  }

  int result = 2;
  Context context;  // Outlives the adaptor, as the library does.
  IQVStreamAdaptor* module = nullptr;
  if (create(&context, &module) == 1) {
    result = play(*module, argv[1]);
    delete module;
  }
  dlclose(library);
  return result;
}
