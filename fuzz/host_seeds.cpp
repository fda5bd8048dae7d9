// First inputs for host_fuzz: times, data tags, and streams with metadata, codecs of each kind and an
// aggregate.

#include <fstream>
#include <string>

#include "RandomFilm.h"
#include "support/FileImage.h"
#include "support/FlvBuilder.h"

using namespace orv::test;

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const auto text = [](const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); };
  const std::string metadata = text(publisherMetadata(true));
  FlvBuilder film, live;
  film.tag(18, 0, publisherMetadata(false)).interleaved(9);
  live.tag(8, 0, Bytes{0xAF, 0, 18, 16})
      .tag(9, 0, Bytes{0x17, 0, 0, 0, 0, 1})
      .tag(9, 40, Bytes{0x17, 1, 0, 0, 0, 1});
  live.tag(18, 50, publisherMetadata(true))
      .tag(22, 60, tagBytes(9, 60, Bytes{0x27, 1, 0, 0, 0, 1}))
      .tag(7, 70, 20);
  int number = 0;
  for (const std::string& input :
       {std::string("\0"
                    "1:02:03.25",
                    11),
        std::string("\0"
                    "90.5s",
                    6),
        std::string("\0"
                    "500ms",
                    6),
        "\x01\x12" + metadata, std::string("\x01\x0F\0", 3) + metadata, "\xFF" + text(film.bytes()),
        "\x03" + text(live.bytes()), "\x20" + text(film.bytes()).substr(0, 200)}) {
    std::ofstream out(std::string(argv[1]) + "/input" + std::to_string(number++), std::ios::binary);
    if (!out.write(input.data(), static_cast<std::streamsize>(input.size()))) return 1;
  }
}
