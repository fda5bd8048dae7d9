// A directory of a test's own, gone with everything in it at the end; and what a full disk looks like.

#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/Types.h"
#include "support/ResourceLimit.h"

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
  // Nothing if there is no such file. Opens it once: another process may remove, replace or fill it
  // meanwhile.
  static Bytes read(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream bytes;
    if (in && in.peek() != std::ifstream::traits_type::eof()) bytes << in.rdbuf();
    const std::string text = bytes.str();
    return {text.begin(), text.end()};
  }

 private:
  std::string path_;
};

using FileSizeLimit = orv::test::ResourceLimit<RLIMIT_FSIZE>;  // Of any file that is written to.

}  // namespace orv::host::test
