// First inputs for remote_fuzz: sound answers, each fault of a server once, redirects.

#include <fstream>
#include <string>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::string ok = "HTTP/1.1 206 Partial Content\r\n", tag = "ETag: \"a\"\r\n", gap = "\r\n";
  const std::string end = "\n--\n", body(500, 'x'), length = "Content-Length: 500\r\n";
  const std::string range = "Content-Range: bytes 10-509/1000\r\n",
                    busy = "HTTP/1.1 503 No\r\nRetry-After: 0\r\n\r\n";
  const std::string whole = ok + tag + "Content-Range: bytes 0-499/500\r\n" + length + gap + body;
  int number = 0;
  for (const std::string& input :
       {"0" + ok + tag + range + length + gap + body, "1" + whole + end + whole,
        "0" + ok + range + gap + body + body, "0" + busy + end + busy + end + busy,
        "0" + ok + range + "Content-Length: 99999999999999\r\n" + gap + body,
        "0" + ok + "Content-Range: bytes 10-9999999999/99999999999999999999\r\n" + gap + body,
        "0" + ok + "Content-Range: bytes */0\r\n\r\n",
        std::string("1HTTP/1.1 416 No\r\nContent-Range: bytes */0\r\n\r\n"),
        "0HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n" + end + "HTTP/1.1 404 No\r\n\r\n",
        "0HTTP/1.1 302 No\r\nLocation: https://a.invalid/b\r\n\r\n" + end + whole,
        "0HTTP/1.1 302 No\r\nLocation: /b\r\n\r\n" + end + ok + range +
            "Transfer-Encoding: chunked\r\n\r\nffffffff\r\n" + body,
        "1" + whole + end + ok + "ETag: \"b\"\r\nContent-Range: bytes 0-49/50\r\n\r\n" + body.substr(450) +
            end + whole}) {
    std::ofstream out(std::string(argv[1]) + "/answers" + std::to_string(number++), std::ios::binary);
    if (!out.write(input.data(), static_cast<std::streamsize>(input.size()))) return 1;
  }
}
