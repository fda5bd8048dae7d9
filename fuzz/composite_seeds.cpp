// First inputs for composite_fuzz: the tags of sound films.

#include <fstream>
#include <string>

#include "support/FlvBuilder.h"

using namespace orv::test;

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const FlvBuilder kFilms[] = {
      FlvBuilder(),
      FlvBuilder().tag(9, 0, 9).tag(8, 10, 0).tag(0x29, 20, 17).tag(18, 30, 4).tag(15, 40, 30),
      FlvBuilder().interleaved(20),
      FlvBuilder().tag(8, 0xFFFFFFFF, 1).tag(22, 0, 40).tag(9, 5, 3),
  };
  int number = 0;
  for (const FlvBuilder& film : kFilms) {
    for (const Bytes& head : {Bytes{0, 1, 0, 0, 0, 20}, Bytes{0, 3, 0, 0, 0, 0}}) {
      std::ofstream out(std::string(argv[1]) + "/film" + std::to_string(number++), std::ios::binary);
      out.write(reinterpret_cast<const char*>(head.data()), static_cast<std::streamsize>(head.size()));
      out.write(reinterpret_cast<const char*>(film.bytes().data()) + orv::flv::kFirstTagPosition,
                static_cast<std::streamsize>(film.size() - orv::flv::kFirstTagPosition));
      if (!out) return 1;
    }
  }
}
