// First inputs for targets whose input is a list of decisions: decisions by chance.

#pragma once

#include <fstream>
#include <string>

#include "support/Random.h"

namespace orv::test {

// Writes `count` files into the folder that the program's first argument names. Returns the exit code.
inline int writeRandomSeeds(int argc, char** argv, u32 count, u32 mostBytes) {
  if (argc < 2) return 2;
  if (argc > 2) count = static_cast<u32>(std::stoul(argv[2]));
  for (u32 number = 0; number < count; ++number) {
    Random random(number);
    std::string bytes(mostBytes / 8 + random.below(mostBytes - mostBytes / 8), '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    std::ofstream out(std::string(argv[1]) + "/session" + std::to_string(number), std::ios::binary);
    if (!out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()))) return 1;
  }
  return 0;
}

}  // namespace orv::test
