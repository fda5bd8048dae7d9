// What both examples give the module: files on the local disk, settings, a log; and the module itself.

#pragma once

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>

#include "modules/streams/contract/Contract.h"

// The module asks for "\films\clip.flv" where the disk has "/films/clip.flv".
inline std::string nativePath(std::string path) {
  std::replace(path.begin(), path.end(), '\\', '/');
  return path;
}

// The opposite, without the ".flv" that the module appends.
inline std::string modulePath(std::string path) {
  if (path.size() > 4 && path.compare(path.size() - 4, 4, ".flv") == 0) path.resize(path.size() - 4);
  std::replace(path.begin(), path.end(), '/', '\\');
  return path;
}

class DiskService final : public IFileService {
 public:
  int open(const char* path, int flags, int mode, int) override {
    const std::string native = nativePath(path);
    if (flags == orv::openflags::readOnly) return ::open(native.c_str(), O_RDONLY | O_CLOEXEC);
    if (flags == orv::openflags::readWrite) return ::open(native.c_str(), O_RDWR | O_CLOEXEC);
    // O_EXCL, since the module asks for a new file after any `stat` that failed: none that is there is cut.
    if (flags == orv::openflags::createTruncate)
      return ::open(native.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    return -1;
  }
  int close(int fd, int) override { return ::close(fd); }
  int read(int fd, i64 position, void* data, u32 size) override {
    return static_cast<int>(::pread(fd, data, size, position));
  }
  int write(int fd, i64 position, const void* data, u32 size) override {
    const auto written = static_cast<int>(::pwrite(fd, data, size, position));
    // The module goes on after a short write of tags; only the service sees it.
    if (written != static_cast<int>(size)) writeFailed = true;
    return written;
  }
  int fstat(int fd, FileStat* record, int) override {
    struct stat native;
    return ::fstat(fd, &native) == 0 ? fill(native, record) : -1;
  }
  int stat(const char* path, FileStat* record, int) override {
    struct stat native;
    return ::stat(nativePath(path).c_str(), &native) == 0 ? fill(native, record) : -1;
  }
  int unlink(const char* path, int) override { return ::unlink(nativePath(path).c_str()); }
  void mkdir(const char* path) override { ::mkdir(nativePath(path).c_str(), 0777); }

  bool writeFailed = false;

 private:
  // Two writes may fall into one tick of the kernel's clock, so the size has a part in the time.
  static int fill(const struct stat& native, FileStat* record) {
    std::memset(record, 0, sizeof *record);
    record->size = native.st_size;
    record->modificationTime = native.st_mtim.tv_sec * 1000000000 + native.st_mtim.tv_nsec + native.st_size;
    return 0;
  }
};

class Context final : public IQVStreamContext {
 public:
  // Those that aren't here keep the module's defaults.
  std::map<std::string, std::string> settings;
  DiskService disk;

  void reserved() override {}
  int getConfigValue(const char* key, char** buffer, u32 size) override {
    const auto found = settings.find(key);
    if (found == settings.end()) return -1;
    const auto needed = static_cast<u32>(found->second.size() + 1);
    if (needed > size) return static_cast<int>(needed);
    std::memcpy(*buffer, found->second.c_str(), needed);
    return 0;
  }
  void logMessage(const char* text, int level, int) override {
    std::fprintf(stderr, "module (%d): %s\n", level, text);
  }
  IFileService* getFileService() override { return &disk; }
};

// Loads the module and makes its adaptor. `context` must outlive this.
class Module {
 public:
  explicit Module(Context& context) : library_(dlopen(FLV_MODULE, RTLD_NOW | RTLD_LOCAL)) {
    const auto create =
        library_ ? reinterpret_cast<decltype(&IQVCreateAdaptor)>(dlsym(library_, "IQVCreateAdaptor"))
                 : nullptr;
    if (!create)
      std::fprintf(stderr, "%s\n", dlerror());
    else
      create(&context, &adaptor_);
  }
  ~Module() {
    delete adaptor_;
    if (library_) dlclose(library_);
  }
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;

  explicit operator bool() const { return adaptor_ != nullptr; }
  IQVStreamAdaptor* operator->() const { return adaptor_; }

 private:
  void* library_;
  IQVStreamAdaptor* adaptor_ = nullptr;
};
