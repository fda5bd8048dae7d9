// A hostile or failing web server, whose answers, headers and all, are the input: each request gets the next
// of the texts that a line "--" parts, and then the connection ends. Proxies are set to that server too, so
// that no redirect leads anywhere else.
//
// What is read of the object is no more than was asked for, lies within the size that the server gave, and
// takes no more memory; everything else is one of the faults that callers know. No look takes longer than a
// few requests.

#include <algorithm>
#include <string_view>

#include "Choices.h"
#include "Loopback.h"
#include "host/files/RemoteFile.h"
#include "support/HeapWatch.h"

namespace orv::host {
namespace {

using namespace std::chrono_literals;

class HostileServer {
 public:
  HostileServer() : thread_([this] { serve(); }) {
    for (const char* name : {"http_proxy", "https_proxy"}) setenv(name, url().c_str(), 1);
    unsetenv("no_proxy");
  }
  ~HostileServer() {
    listener_.shutDown();
    thread_.join();
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(listener_.port()); }
  // Returns once nothing of an earlier input is under way.
  void answerWith(std::string_view texts) {
    const std::lock_guard lock(mutex_);
    texts_ = texts;
  }

 private:
  void serve() {
    while (test::Connection client = listener_.accept()) {
      client.receiveUntil("\r\n\r\n");
      client.send(next());
    }
  }
  std::string next() {
    constexpr std::string_view kParting = "\n--\n";
    const std::lock_guard lock(mutex_);
    const std::size_t end = texts_.find(kParting);
    const std::string text(texts_.substr(0, end));
    texts_ = end == std::string_view::npos ? "" : texts_.substr(end + kParting.size());
    return text;
  }

  const test::Listener listener_;
  std::mutex mutex_;
  std::string_view texts_;  // Under mutex_.
  std::thread thread_;
};

void readObject(HttpRanges& http, const std::string& url) {
  RemoteFile file(http, url, 0ms);
  u8 bytes[3000];
  for (const i64 position : {i64{0}, i64{13}, i64{100'000}, i64{50}}) {
    try {
      const RemoteFile::Look look = file.look();
      HOLDS(look.size >= 0 && look.stamp != 0);
      const std::size_t got = file.read(look.stamp, position, bytes, sizeof bytes);
      HOLDS(static_cast<i64>(got) <= std::clamp<i64>(look.size - position, 0, sizeof bytes));
    } catch (const HttpFault&) {
    } catch (const RemoteChanged&) {
    }
  }
}

void readRange(HttpRanges& http, const std::string& url) {
  const ObjectState known{100'000, "\"a\"", ""};
  for (const ObjectState* state : {static_cast<const ObjectState*>(nullptr), &known}) {
    try {
      const RangeAnswer answer = http.get(url, 10, 500, state);
      HOLDS(answer.bytes.size() <= 500 && (answer.bytes.empty() || answer.state.size > 10));
    } catch (const HttpFault&) {
    }
  }
}

}  // namespace
}  // namespace orv::host

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
  using namespace orv::host;
  static HostileServer server;
  static HttpRanges http({1000ms, 5000ms, 0ms, 0ms, 2});
  if (size == 0) return 0;
  server.answerWith({reinterpret_cast<const char*>(data + 1), size - 1});
  {
    const orv::test::HeapWatch heap;
    data[0] % 2 ? readObject(http, server.url() + "/f.flv") : readRange(http, server.url() + "/f.flv");
    HOLDS(heap->peak < 16 << 20);
  }
  server.answerWith({});
  return 0;
}
