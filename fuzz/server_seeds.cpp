// First inputs for server_fuzz: targets of requests, and a short stream.

#include <fstream>
#include <string>

#include "support/FlvBuilder.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const orv::test::FlvBuilder film = orv::test::FlvBuilder().interleaved(5);
  const std::string stream(film.bytes().begin(), film.bytes().end());
  int number = 0;
  for (const std::string& input :
       {std::string("/"), std::string("/a/b%20c.flv?from=1:30&to=-5s&token=t"), std::string("/a/../b.json"),
        std::string("/a/segments.json"), "\x40" + stream}) {
    std::ofstream out(std::string(argv[1]) + "/request" + std::to_string(number++), std::ios::binary);
    out.write(input.data(), static_cast<std::streamsize>(input.size()));
    if (!out) return 1;
  }
}
