// First inputs for http_fuzz: requests of each kind, some of them wrong, and a publisher's stream.

#include <fstream>
#include <string>

#include "support/FlvBuilder.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const orv::test::FlvBuilder film = orv::test::FlvBuilder().interleaved(5);
  const std::string stream(film.bytes().begin(), film.bytes().end()), end = "\r\n\r\n";
  const std::string post = "POST /b.flv HTTP/1.1\r\nHost: h\r\nContent-Type: video/x-flv\r\n";
  int number = 0;
  for (const std::string& input :
       {"\xFFGET /a.flv?from=0:01 HTTP/1.1\r\nHost: h" + end, "\x80GET /list.json HTTP/1.0" + end,
        "\x80HEAD /a.flv HTTP/1.1\r\nHost: h" + end + "GET / HTTP/1.1\r\nHost: h" + end,
        "\x40GET /../a.flv HTTP/1.1\r\nRange: bytes=0-5\r\nOrigin: http://x\r\nConnection: upgrade" + end,
        "\x80OPTIONS * HTTP/9.9" + end,
        "\x80GET /a.flv HTTP/1.1\r\nContent-Length: 99999999999999999999" + end,
        "\x80GET /" + std::string(9000, 'a') + " HTTP/1.1" + end, std::string("\x80\0\r\n\r\n", 6),
        "\x80" + post + "Content-Length: " + std::to_string(stream.size()) + end + stream,
        "\x90" + post + "Transfer-Encoding: chunked" + end + "0d\r\n" + stream.substr(0, 13) +
            "\r\nfffffffff\r\n" + stream,
        "\x80" + post + "Expect: 100-continue\r\nContent-Length: 5" + end + "FLV"}) {
    std::ofstream out(std::string(argv[1]) + "/request" + std::to_string(number++), std::ios::binary);
    if (!out.write(input.data(), static_cast<std::streamsize>(input.size()))) return 1;
  }
}
