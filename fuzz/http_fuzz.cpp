// Any bytes on a connection to the server, by way of its own sockets and parser. They are sent in two pieces,
// whose sizes the first byte gives in 255ths.
//
// What comes back is HTTP or nothing; the connection ends; and the server answers the next client.

#include <filesystem>
#include <fstream>

#include "Loopback.h"
#include "host/server/HttpServer.h"
#include "support/FlvBuilder.h"

namespace orv::host {
namespace {

namespace fs = std::filesystem;
using test::Connection;

const bool kQuiet = std::freopen("/dev/null", "w", stdout) != nullptr;

class ServedFolder {
 public:
  ServedFolder() : folder_(fs::temp_directory_path() / ("http_fuzz" + std::to_string(getpid()))) {
    tidy();
    server_.emplace(options());
    thread_ = std::thread([this] { server_->run(); });
    const std::string address = server_->address();
    port_ = static_cast<u16>(std::stoul(address.substr(address.rfind(':') + 1)));
  }
  ~ServedFolder() {
    server_->stop();
    thread_.join();
    server_.reset();
    fs::remove_all(folder_);
  }
  Connection connect() const { return Connection::to(port_); }
  // What clients published goes.
  void tidy() const {
    fs::remove_all(folder_);
    fs::create_directories(folder_);
    const auto film = test::FlvBuilder().interleaved(20).bytes();
    std::ofstream(folder_ / "a.flv", std::ios::binary)
        .write(reinterpret_cast<const char*>(film.data()), static_cast<std::streamsize>(film.size()));
  }

 private:
  ServerOptions options() const {
    ServerOptions made;
    made.library.common.module = FLV_MODULE_PATH;
    made.library.folder = folder_;
    made.port = 0;
    made.allowPublish = true;
    made.patience = std::chrono::seconds(5);
    return made;
  }

  const fs::path folder_;
  std::optional<HttpServer> server_;
  std::thread thread_;
  u16 port_ = 0;
};

}  // namespace
}  // namespace orv::host

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
  static const orv::host::ServedFolder served;
  static int inputs = 0;
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
  const auto client = served.connect();
  client.send(text.substr(0, text.size() * data[0] / 255));
  client.send(text.substr(text.size() * data[0] / 255));
  client.endSending();
  bool isOver = false;
  const std::string answer = client.receiveUntil("", &isOver);
  HOLDS(answer.empty() || answer.starts_with("HTTP/1."));
  HOLDS(isOver);
  const auto next = served.connect();
  next.send("GET /a.json HTTP/1.0\r\n\r\n");
  HOLDS(next.receiveUntil("\r\n").find(" 200 OK") != std::string::npos);
  if (++inputs % 100 == 0) served.tidy();
  return 0;
}
