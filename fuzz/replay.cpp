// Runs a fuzz target over files and folders of files, for builds without a fuzzer. Folders that don't exist
// are empty. Exits 2 if there was no file at all.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/Types.h"

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size);

namespace {

namespace fs = std::filesystem;
int replayed = 0;

void replay(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(in), {}};
  std::fprintf(stderr, "%s\n", path.c_str());
  LLVMFuzzerTestOneInput(reinterpret_cast<const u8*>(bytes.data()), bytes.size());
  ++replayed;
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (fs::is_directory(argv[i]))
      for (const auto& entry : fs::directory_iterator(argv[i])) replay(entry.path());
    else if (fs::exists(argv[i]))
      replay(argv[i]);
  }
  return replayed > 0 ? 0 : 2;
}
