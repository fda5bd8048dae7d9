// A directory of a test's own, gone with everything in it at the end; and what a full disk looks like.

#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/Types.h"

namespace orv::host::test {

using Bytes = std::vector<u8>;

inline std::string str(const Bytes& bytes) {
  return {bytes.begin(), bytes.end()};
}

class TempDir {
 public:
  TempDir() {
    std::string name = (std::filesystem::temp_directory_path() / "flvhost-test-XXXXXX").native();
    if (!::mkdtemp(name.data())) throw std::runtime_error("no temporary directory");
    path_ = name;
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  ~TempDir() { std::filesystem::remove_all(path_); }

  std::string path(const std::string& name) const { return path_ + "/" + name; }
  // Makes or replaces a file.
  std::string file(const std::string& name, const Bytes& bytes) const {
    std::ofstream out(path(name), std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return path(name);
  }
  // Nothing if there is no such file.
  static Bytes read(const std::string& file) {
    if (!std::filesystem::exists(file)) return {};
    std::ifstream in(file, std::ios::binary);
    Bytes bytes(std::filesystem::file_size(file));
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return bytes;
  }

 private:
  std::string path_;
};

// While it stands, no file that this process, or one that it starts, writes to grows beyond `size` bytes.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t size) {
    getrlimit(RLIMIT_FSIZE, &old_);
    const rlimit tight{size, old_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &tight);
  }
  ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &old_); }

 private:
  rlimit old_{};
};

}  // namespace orv::host::test
