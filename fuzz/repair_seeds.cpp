// First inputs for repair_fuzz: a sound film, and one of each kind of damage.

#include <fstream>
#include <string>

#include "support/FlvBuilder.h"

using namespace orv::test;

namespace {

Bytes film() {
  FlvBuilder made;
  made.tag(18, 0, Bytes{2, 0, 10, 'o', 'n', 'M', 'e', 't', 'a', 'D', 'a', 't', 'a', 8, 0, 0, 0, 0, 0, 0, 9});
  made.tag(9, 0, Bytes{0x17, 0, 0, 0, 0, 1}).tag(8, 0, Bytes{0xAF, 0, 0x12}).interleaved(6);
  return made.bytes();
}

Bytes with(Bytes bytes, std::size_t at, const Bytes& more) {
  bytes.insert(bytes.begin() + static_cast<std::ptrdiff_t>(at), more.begin(), more.end());
  return bytes;
}

Bytes without(Bytes bytes, std::size_t at, std::size_t count) {
  const auto from = bytes.begin() + static_cast<std::ptrdiff_t>(at);
  bytes.erase(from, from + static_cast<std::ptrdiff_t>(count));
  return bytes;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const Bytes sound = film(), junk = payload(0, 60, 5);
  const std::size_t half = sound.size() / 2;
  Bytes zeroSizes =
      FlvBuilder().tag(9, 0, 30).trailing(0).tag(8, 5, 20).trailing(0).tag(9, 20, 30).trailing(0).bytes();
  const Bytes kFilms[] = {
      sound,
      with(sound, half, junk),
      with(sound, half, Bytes(200)),
      without(sound, half, 90),
      without(sound, 0, 13),
      without(sound, sound.size() - 40, 40),
      with(sound, sound.size(), sound),
      with(sound, sound.size(), junk),
      zeroSizes,
      FlvBuilder().tag(9, 9000, 9).tag(99, 9040, 9).tag(9, 20, 9).tag(8, 90000, 9).bytes()};
  int number = 0;
  for (const Bytes& bytes : kFilms) {
    for (const int how : {0, 1, 2, 7, 8, 14}) {
      std::ofstream out(std::string(argv[1]) + "/film" + std::to_string(number++), std::ios::binary);
      out.put(static_cast<char>(how));
      out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
      if (!out) return 1;
    }
  }
}
