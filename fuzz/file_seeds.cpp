// First inputs for file_fuzz: sound films and broken ones.

#include <cstdlib>
#include <fstream>
#include <string>

#include "support/FlvBuilder.h"
#include "support/Random.h"

using namespace orv::test;

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const FlvBuilder small =
      FlvBuilder().tag(9, 0, 9).tag(8, 10, 0).tag(9, 20, 17).tag(18, 30, 4).tag(9, 40, 30);
  const Bytes kFilms[] = {
      FlvBuilder().bytes(),
      small.bytes(),
      FlvBuilder(small).trailing(9).interleaved(4, 60).bytes(),
      FlvBuilder(small).raw(Bytes(40)).bytes(),
      FlvBuilder(20).interleaved(9).bytes(),
      FlvBuilder().tag(9, 500, 3).tag(9, 20, 3).tag(41, 0, 3).tag(9, 0xFFFFFFFF, 3).bytes(),
      FlvBuilder().interleaved(6).tag(9, 500, 9000).interleaved(6, 600).bytes(),
  };
  const Bytes kHeads[] = {{0, 255, 0, 0, 0, 0, 0, 20},   {8, 128, 0, 0, 0, 0, 0, 40},
                          {5, 200, 9, 1, 0, 0, 0, 0},    {18, 255, 0, 0, 0, 9, 0, 0},
                          {0xC0, 250, 0, 0, 0, 4, 0, 9}, {0xCE, 255, 0, 0, 0, 0, 1, 0}};
  int number = 0;
  const auto write = [&](const Bytes& head, const Bytes& film) {
    std::ofstream out(std::string(argv[1]) + "/film" + std::to_string(number++), std::ios::binary);
    out.write(reinterpret_cast<const char*>(head.data()), static_cast<std::streamsize>(head.size()));
    out.write(reinterpret_cast<const char*>(film.data()), static_cast<std::streamsize>(film.size()));
    if (!out) std::exit(1);
  };
  for (const Bytes& film : kFilms)
    for (const Bytes& head : kHeads) write(head, film);
  // Each byte flipped, and noise of one byte or of all, behind a header and some tags.
  Random random(5);
  for (std::size_t at = 0; at < small.bytes().size(); ++at) {
    Bytes flipped = small.bytes();
    flipped[at] ^= static_cast<u8>(1 + random.below(255));
    write(kHeads[0], flipped);
  }
  for (const u32 size : {1u, 12u, 5000u, 400'000u}) {
    for (const int fill : {-1, 0x00, 0x08, 0x09, 0xFF}) {
      Bytes noise(size);
      for (u8& byte : noise) byte = static_cast<u8>(fill < 0 ? random() : static_cast<u32>(fill));
      for (const FlvBuilder& before : {FlvBuilder(), small})
        write(kHeads[0], FlvBuilder(before).raw(noise).bytes());
    }
  }
}
