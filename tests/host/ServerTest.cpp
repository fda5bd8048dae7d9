#include "host/server/HttpServer.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <deque>
#include <nlohmann/json.hpp>

#include "Damage.h"
#include "Program.h"
#include "platform/Sanitizers.h"

namespace orv::host::test {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

constexpr char kLastChunk[] = "\r\n0\r\n\r\n";

// A request as text: "media a.flv from 90000 to -5000 (bad)".
std::string meaning(const std::string& target) {
  constexpr const char* kKinds[] = {"page",  "script",  "player",   "list",   "metrics",
                                    "media", "summary", "segments", "unknown"};
  const ServerRequest request = readRequest(target);
  std::string text = kKinds[static_cast<int>(request.kind)];
  if (!request.name.empty()) text += " " + request.name;
  for (const auto& [word, time] : {std::pair{" from ", request.from}, {" to ", request.to}})
    if (time) text += word + std::string(time->fromEnd ? "-" : "") + std::to_string(time->ms);
  return text + (request.isBad ? " (bad)" : "");
}

TEST(ServerRequest, meansWhatItSaysOrNothing) {
  const std::pair<std::string, std::string> kCases[] = {
      {"/", "page"},
      {"/list.json", "list"},
      {"/metrics?x", "metrics"},
      {"/page.js", "script"},
      {"/mpegts.js", "player"},
      {"/a/b%20c.flv?from=1:30&to=-5s&token=t", "media a/b c.flv from 90000 to -5000"},
      {"/a.json", "summary a.flv"},
      {"/a/segments.json", "segments a.flv"},
      {"/a.flv?from=x", "media a.flv (bad)"},
      {"/a.flv?from=-", "media a.flv (bad)"},
      {"/a%2.flv", "unknown (bad)"},
  };
  for (const auto& [target, text] : kCases) EXPECT_EQ(meaning(target), text) << target;
  const std::string longest = "/" + std::string(300, 'a') + ".flv";
  for (const std::string& target : std::initializer_list<std::string>{
           "/..%2fa.flv", "/a/../b.flv", "/a//b.flv", "//etc/a.flv", "/.hidden.flv", "/a\\b.flv",
           "/a%00b.flv", "/a%0ab.flv", "/.flv", "/a.mp4", "a.flv", "", "/1/2/3/4/5/6/7/8/9.flv", longest})
    EXPECT_EQ(meaning(target), "unknown") << target;
  EXPECT_TRUE(isSameSecret("abc", "abc"));
  for (const char* wrong : {"", "ab", "abcd", "abcabc", "xbc"}) EXPECT_FALSE(isSameSecret(wrong, "abc"));
}

TEST(PieceCache, keepsWhatWasUsedLastWithinItsBudget) {
  const auto piece = [] { return std::make_shared<Piece>(Piece{Bytes(1000), {}, 0}); };
  struct Owner : PieceOwner {
    void onFreed(i64 position) override { freed.push_back(position); }
    std::vector<i64> freed;
  };
  const auto owner = std::make_shared<Owner>();
  PieceCache cache(2 * piece()->memory() + 10);
  cache.keep({1, 0}, piece(), owner, 1);
  cache.keep({1, 5}, piece(), owner, 3);
  EXPECT_TRUE(cache.find({1, 0}));
  EXPECT_EQ(cache.overhead(), 3u);
  cache.keep({2, 0}, piece(), owner, 7);
  EXPECT_TRUE(cache.find({1, 0}) && cache.find({2, 0}));
  EXPECT_FALSE(cache.find({1, 5})) << "the one used least recently";
  EXPECT_EQ(owner->freed, std::vector<i64>{5});
  cache.keep({2, 9}, piece(), owner, 8);
  EXPECT_EQ(owner->freed, (std::vector<i64>{5, 0, 0})) << "one byte beyond the budget with what files hold";
  EXPECT_EQ(cache.forget(2), std::vector<i64>{9});
  EXPECT_EQ(cache.memory(), 0u);
  EXPECT_EQ(cache.overhead(), 3u);
}

// A connection that sends what the test says, and reads as slowly.
class Wire {
 public:
  explicit Wire(u16 port, const std::string& request = "")
      : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    const timeval patience{30, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    EXPECT_EQ(::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    send(request);
  }
  Wire(const Wire&) = delete;
  ~Wire() { ::close(fd_); }

  void send(const std::string& bytes) const { ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
  // The next bytes; empty at the end.
  std::string some() const {
    std::string bytes(65'536, '\0');
    const ssize_t size = ::recv(fd_, bytes.data(), bytes.size(), 0);
    return bytes.substr(0, size > 0 ? static_cast<std::size_t>(size) : 0);
  }
  // Reads until `text` has come, or up to the end.
  std::string until(const std::string& text) const {
    std::string all;
    for (std::string next = some(); !next.empty(); next = some()) {
      const std::size_t before = all.size() - std::min(all.size(), text.size());
      all += next;
      if (!text.empty() && all.find(text, before) != std::string::npos) break;
    }
    return all;
  }
  std::string rest() const { return until(""); }

 private:
  const int fd_;
};

std::string bodyOf(const std::string& answer) {
  return answer.substr(answer.find("\r\n\r\n") + 4);
}

// What a publisher sends that has not ended yet.
std::string putting(const std::string& bytes, const std::string& name = "live.flv") {
  return "PUT /" + name + " HTTP/1.1\r\nContent-Length: 99999999\r\n\r\n" + bytes;
}

// Of live.flv; -1 where there is none.
i64 durationAt(u16 port) {
  const std::string answer = Wire(port, "GET /live.json HTTP/1.0\r\n\r\n").rest();
  const auto json = nlohmann::json::parse(bodyOf(answer), nullptr, false);
  return json.is_object() ? json["duration"].value("ms", i64{-1}) : -1;
}

// The one at the end of an address.
u16 portIn(const std::string& address) {
  return static_cast<u16>(std::stoi(address.substr(address.rfind(':') + 1)));
}

class Server : public testing::Test {
 protected:
  void start(std::function<void(ServerOptions&)> change = [](ServerOptions&) {}) {
    ServerOptions options;
    options.library.folder = dir.path("");
    options.library.common.module = FLV_MODULE_PATH;
    options.library.flushInterval = std::chrono::milliseconds(1);
    options.port = 0;
    options.allowPublish = true;
    change(options);
    server_.emplace(options);
    port = portIn(server_->address());
    thread_ = std::thread([this] { server_->run(); });
  }
  // A file that nobody has written to for a while: it has an end.
  void film(const std::string& name, const Bytes& bytes) const {
    std::filesystem::last_write_time(dir.file(name, bytes),
                                     std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
  }
  void stop() {
    if (thread_.joinable()) server_->stop(), thread_.join();
    server_.reset();
  }
  ~Server() override { stop(); }

  std::string ask(const std::string& line, const std::string& fields = "") const {
    return Wire(port, line + " HTTP/1.0\r\n" + fields + "\r\n").rest();
  }
  std::string put(const std::string& name, const Bytes& bytes) const {
    const std::string size = std::to_string(bytes.size());
    return Wire(port, "PUT /" + name + " HTTP/1.0\r\nContent-Length: " + size + "\r\n\r\n" + str(bytes))
        .rest();
  }
  std::string metric(const std::string& name) const {
    const std::string text = "\n" + ask("GET /metrics"), key = "\nflvhost_" + name + " ";
    const std::size_t at = text.find(key) + key.size();
    return text.substr(at, text.find('\n', at) - at);
  }

  const TempDir dir;
  u16 port = 0;

 private:
  std::optional<HttpServer> server_;
  std::thread thread_;
};

TEST_F(Server, playsWhatTheCommandPlays) {
  const FlvBuilder source = movie(1500);
  film("film.flv", source.bytes());
  film("torn.flv", Bytes(source.bytes().begin(), source.bytes().begin() + 600'007));
  film("damaged.flv", Damage(source).overwrite(400'000, Bytes(5'000, 0xEE)).bytes());
  start();
  EXPECT_EQ(bodyOf(ask("GET /film.flv")), str(source.bytes()));
  const auto played = [&](const std::string& rest) { return flvhost("play -o - " + dir.path(rest)).out; };
  EXPECT_EQ(metric("damaged_total"), "0");
  EXPECT_TRUE(bodyOf(ask("GET /damaged.flv")) == played("damaged.flv"));
  EXPECT_TRUE(metric("damaged_total") != "0" && metric("recovered_tags_total") != "0");
  EXPECT_EQ(bodyOf(ask("GET /film.flv?from=12.5&to=20")), played("film.flv --from 12.5 --to 20"));
  EXPECT_EQ(bodyOf(ask("GET /film.flv?from=-3s")), played("film.flv --from 26.98"));
  EXPECT_EQ(tagsOf(bodyOf(ask("GET /torn.flv"))).size(), 590u);
  EXPECT_THAT(ask("HEAD /film.flv"), AllOf(StartsWith("HTTP/1.0 200"), EndsWith("\r\n\r\n")));
  EXPECT_THAT(ask("GET /film.json"), HasSubstr("\"file\": \"film.flv\""));
  EXPECT_THAT(ask("GET /film/segments.json"), HasSubstr("\"segments\""));
  EXPECT_THAT(ask("GET /list.json"), HasSubstr("\"name\": \"torn.flv\""));
  EXPECT_THAT(ask("GET /"), HasSubstr("<video"));

  // One connection, one request behind the other; each loaded segment serves both.
  const std::string get = "GET /film.flv?from=29 HTTP/1.1\r\nHost: localhost\r\n\r\n";
  const Wire wire(port, get);
  const std::string first = wire.until(kLastChunk);
  EXPECT_THAT(first, HasSubstr("chunked"));
  wire.send(get);
  EXPECT_EQ(wire.until(kLastChunk), first);
  EXPECT_NE(metric("cache_hits_total"), "0");
}

TEST_F(Server, refusesWhatItShouldNotDo) {
  const TempDir outside;
  outside.file("secret.flv", movie(10).bytes());
  film("film.flv", movie(10).bytes());
  dir.file("text.flv", {'n', 'o'});
  std::filesystem::create_symlink(outside.path("secret.flv"), dir.path("link.flv"));
  std::filesystem::create_directory_symlink(outside.path(""), dir.path("door"));
  start([](ServerOptions& options) { options.token = "sesame"; });
  // Requests with '|' between them, and their fields behind '#'.
  const std::pair<std::string, std::string> kCases[] = {
      {"200", "GET /film.flv"},
      {"400", "GET /film.flv?from=soon|nonsense|GET /film.flv#X: " + std::string(20'000, 'x')},
      {"401", "PUT /new.flv|PUT /new.flv#Authorization: Bearer sesam|PUT /new.flv?token=sesam"},
      {"403",
       "GET /film.flv#Host: evil.example|PUT /new.flv?token=sesame#Host: localhost\r\nOrigin: "
       "http://evil.example"},
      {"404", "GET /nix.flv|GET /link.flv|GET /door/secret.flv|GET /../x.flv|PUT /new.txt?token=sesame"},
      {"404", "PUT /door/new.flv#Authorization: Bearer sesame"},
      {"405", "DELETE /film.flv"},
      {"422", "GET /text.flv|GET /film.flv?from=1:00:00|PUT /text.flv?token=sesame"},
  };
  for (const auto& [status, requests] : kCases) {
    std::istringstream all(requests);
    for (std::string one; std::getline(all, one, '|');) {
      const std::size_t at = std::min(one.find('#'), one.size());
      const std::string fields = at < one.size() ? one.substr(at + 1) + "\r\n" : "";
      const std::string answer = ask(one.substr(0, at), "Content-Length: 0\r\n" + fields);
      EXPECT_THAT(answer, HasSubstr(" " + status + " ")) << one.substr(0, 80);
      EXPECT_EQ(answer.find(dir.path("")), std::string::npos) << answer;
    }
  }
  EXPECT_FALSE(std::filesystem::exists(outside.path("new.flv")));
  EXPECT_THAT(put("junk.flv?token=sesame", Bytes(100'000, 'x')), HasSubstr(" 422 "));
}

// A publisher, viewers that came before, during and after, a second publisher, one that vanishes and returns.
TEST_F(Server, liveStreamsReachTheirViewersAndTheFile) {
  const FlvBuilder film = movie(1200, FlvBuilder().tag(18, 0, onMetaData()));
  const std::string bytes = str(film.bytes());
  start([&](ServerOptions& options) { options.library.mirrorFolder = dir.path("mirror"); });
  const auto chunk = [](const std::string& text) { return fmt::format("{:x}\r\n{}\r\n", text.size(), text); };
  const Wire publisher(
      port, "POST /live.flv HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n" + chunk(bytes.substr(0, 13)));
  ASSERT_TRUE(eventually([&] { return TempDir::read(dir.path("live.flv")).size() == 13; }));
  const Wire early(port, "GET /live.flv HTTP/1.0\r\n\r\n");
  ASSERT_TRUE(eventually([&] { return metric("viewers") == "1"; }));
  EXPECT_THAT(put("live.flv", film.bytes()), HasSubstr(" 409 "));
  publisher.send(chunk(bytes.substr(13, 500'000)));
  std::string seen = early.until("\r\n\r\n");
  ASSERT_TRUE(eventually([&] { return durationAt(port) > 9'000; }));
  const Wire late(port, "GET /live.flv?from=-2s HTTP/1.0\r\n\r\n");
  ASSERT_TRUE(eventually([&] { return metric("viewers") == "2"; }));
  publisher.send(chunk(bytes.substr(500'013)) + "0\r\n\r\n");
  EXPECT_THAT(publisher.until("flushes"), HasSubstr("200 OK"));

  seen += early.rest();
  const TagList tags = tagsOf(bodyOf(seen)), behind = tagsOf(bodyOf(late.rest()));
  ASSERT_EQ(tags.size(), film.tags().size());
  EXPECT_TRUE(isPart(tags, 1, film));
  ASSERT_LT(behind.size(), tags.size());
  EXPECT_TRUE(std::equal(behind.rbegin(), behind.rend() - 1, tags.rbegin()));
  EXPECT_EQ(TempDir::read(dir.path("mirror/live.flv")), TempDir::read(dir.path("live.flv")));

  std::optional<Wire> vanishing(std::in_place, port, putting(bytes.substr(0, 300'500)));  // Inside a tag.
  const u64 sent = bytes.size() + 300'500;
  ASSERT_TRUE(eventually([&] { return std::stoul(metric("published_bytes_total")) >= sent; }));
  vanishing.reset();
  ASSERT_TRUE(eventually([&] { return metric("publishers") == "0"; }));
  EXPECT_THAT(put("live.flv", film.bytes()), HasSubstr("200 OK"));
  const Outcome checked = flvhost("play --verify " + dir.path("live.flv"));
  EXPECT_TRUE(checked.exitCode == 0 && checked.out.find("checked   2696 tags") != std::string::npos);
}

// Of a file as of one that is being recorded.
TEST_F(Server, aViewerInTheMiddleGetsTheSetupsOfItsPlace) {
  const Bytes early{0x17, 0, 0, 0, 0, 1}, late{0x17, 0, 0, 0, 0, 2};
  const FlvBuilder half = movie(700, FlvBuilder().tag(9, 0, early)).tag(9, 14'000, late);
  const FlvBuilder coded = movie(700, half, 14'000);
  film("coded.flv", coded.bytes());
  start();
  for (const char* part : {"20", "5"}) {
    const std::string played =
        flvhost("play -o - --to 21 --from " + (part + (" " + dir.path("coded.flv")))).out;
    EXPECT_TRUE(bodyOf(ask(std::string("GET /coded.flv?to=21&from=") + part)) == played) << part;
  }
  const Wire publisher(port, putting(str(coded.bytes())));
  ASSERT_TRUE(eventually([&] { return durationAt(port) == coded.tags().back().time; }));
  EXPECT_EQ(tagsOf(bodyOf(ask("GET /live.flv?from=20&to=21")))[1].data, late);
}

TEST_F(Server, recordsADamagedStreamAsTheCommandDoes) {
  const FlvBuilder film = movie(600);
  const auto half = film.tags()[300].position + 500;
  // Inside a tag; a size that lies, found out at the end alone.
  const Bytes damaged = Damage(film).remove(half, 3000).overwrite(film.tags()[590].position + 1, {1}).bytes();
  start();
  EXPECT_THAT(put("live.flv", damaged), HasSubstr("; lost of the stream: 2075 bytes"));
  EXPECT_EQ(flvhost("record " + dir.path("film.flv"), damaged).exitCode, 1);
  EXPECT_TRUE(TempDir::read(dir.path("live.flv")) == TempDir::read(dir.path("film.flv")));
  EXPECT_EQ(metric("published_damages_total"), "2");
  EXPECT_EQ(metric("published_lost_bytes_total"), "2075");
}

TEST(Library, callsThoseWhoCameBeforeAPublishersFile) {
  const TempDir dir;
  LibraryOptions options;
  options.folder = dir.path("");
  options.common.module = FLV_MODULE_PATH;
  Library library(options, [](const std::function<void()>& work) { work(); });
  int calls = 0;
  const auto waits = [&] { return library.awaitBeginning("a.flv", [&] { ++calls; }); };
  EXPECT_TRUE(!waits() && library.claim("a.flv") && waits() && waits());
  EXPECT_FALSE(library.claim("a.flv") || calls);
  library.begun("a.flv");
  EXPECT_TRUE(!waits() && calls == 2);
  library.release("a.flv");
  EXPECT_TRUE(library.claim("a.flv") && waits());
  library.release("a.flv");
  EXPECT_EQ(calls, 3) << "the publisher gave up";
}

// What waits with a viewer at the end of the file when the server is stopped is flushed all the same.
TEST_F(Server, viewersMayComeBeforeTheFileAndStayToTheEnd) {
  start([](ServerOptions& options) { options.library.flushInterval = std::chrono::hours(1); });
  const FlvBuilder film = movie(50);
  std::deque<Wire> wires;
  for (char name = 'a'; name < 'a' + 20; ++name) {
    wires.emplace_back(port, putting(str(film.bytes()), name + std::string(".flv")));
    wires.emplace_back(port, std::string("GET /") + name + ".flv HTTP/1.0\r\n\r\n");
  }
  const u64 sent = 20 * film.bytes().size();
  ASSERT_TRUE(eventually([&] { return std::stoul(metric("published_bytes_total")) == sent; }));
  EXPECT_TRUE(metric("viewers") == "20" && metric("refused_total") == "0");
  stop();
  for (char name = 'a'; name < 'a' + 20; ++name) {
    const std::string recorded = str(TempDir::read(dir.path(name + std::string(".flv"))));
    EXPECT_EQ(tagsOf(recorded).size(), film.tags().size() + 1) << "the metadata's place in front";
  }
}

// Viewers of a recording whose file is renamed, removed or replaced; one of them is slow, and one waits at
// its end.
TEST_F(Server, viewersOfAFileThatLostItsNameGetToItsEnd) {
  const FlvBuilder source = movie(10'000), more = movie(100, FlvBuilder(), 200'000);
  const std::string old = dir.path("live.flv");
  const std::function<void()> kMoves[] = {
      [&] { std::filesystem::rename(old, dir.path("old.flv")); },
      [&] { std::filesystem::remove(old); },
      [&] { std::filesystem::rename(dir.file("other.flv", FlvBuilder().bytes()), old); },
  };
  start([](ServerOptions& options) { options.library.flushInterval = std::chrono::milliseconds(50); });
  for (const auto& move : kMoves) {
    ASSERT_TRUE(eventually([&] { return metric("publishers") == "0"; }));
    std::filesystem::remove(old);
    const Wire publisher(port, putting(str(source.bytes())));
    ASSERT_TRUE(eventually([&] { return durationAt(port) == source.tags().back().time; }));
    const std::string get = " HTTP/1.1\r\nHost: localhost\r\n\r\n";
    const Wire slow(port, "GET /live.flv" + get), waiting(port, "GET /live.flv?from=199" + get);
    std::string seen = slow.until("\r\n\r\n"), tail = waiting.until("\r\n\r\n");
    move();
    publisher.send(str(more.bytes()).substr(flv::kFirstTagPosition));
    EXPECT_THAT(tail += waiting.until(kLastChunk), EndsWith(kLastChunk));
    EXPECT_THAT(seen += slow.until(kLastChunk), EndsWith(kLastChunk));
    EXPECT_GE(seen.size(), source.bytes().size());
  }
}

// The server as a process.
struct Process : Running {
  explicit Process(const TempDir& dir)
      : Running("serve " + dir.path("") + " --listen 127.0.0.1:0 --allow-publish --flush-every 1ms") {
    EXPECT_TRUE(eventually([&] { return out().find("/\n") != std::string::npos; })) << out();
    port = portIn(out());
  }
  u16 port;
};

// Killed under load; FLV_KILLS tells how often (default 3). What a viewer was sent had been flushed before.
TEST(ServerProcess, killedItKeepsAllThatWasFlushed) {
  const char* const wish = std::getenv("FLV_KILLS");
  const FlvBuilder film = movie(6000, FlvBuilder().tag(18, 0, onMetaData()));
  for (int kill = 0; kill < (wish ? std::atoi(wish) : 3); ++kill) {
    const TempDir dir;
    Process server(dir);
    const Wire publisher(server.port, putting(""));
    std::thread sender([&] { publisher.send(str(film.bytes())); });
    const std::string name = dir.path("live.flv");
    ASSERT_TRUE(eventually([&] { return TempDir::read(name).size() > 13; }));
    const Wire viewer(server.port, "GET /live.flv HTTP/1.0\r\n\r\n");
    std::string seen = viewer.until("\r\n\r\n");
    while (bodyOf(seen).size() < 100'000u * static_cast<unsigned>(kill % 10 + 1)) seen += viewer.some();
    server.signal(SIGKILL);
    seen += viewer.rest();
    server.wait();
    sender.join();

    const TagList kept = tagsOf(flvhost("play -o - " + name).out);
    ASSERT_GE(kept.size(), tagsOf(bodyOf(seen)).size());
    EXPECT_TRUE(isPart(kept, 1, film));
  }
}

// 24 hours of times as fast as they are taken, over the end of the 32 bits, with the file renamed away each
// six hours. FLV_DAY_STEP_MS is the time from tag to tag (default 8000).
TEST(ServerProcess, aDayOfTimesRunsOnThroughRotationAndTheWrap) {
  constexpr u32 kHour = 3'600'000, kParts = 4;
  const char* const wish = std::getenv("FLV_DAY_STEP_MS");
  const u32 step = wish ? static_cast<u32>(std::atoi(wish)) : 8000, count = 24 * kHour / step;
  const TempDir dir;
  const Process server(dir);
  const auto timeOf = [&](u32 i) { return i * step - 12 * kHour; };
  const auto part = [&](u32 i) { return dir.path("part" + std::to_string(i) + ".flv"); };
  const Wire publisher(server.port, putting(str(FlvBuilder().bytes())));
  [[maybe_unused]] u64 memory[kParts] = {};
  for (u32 i = 0, at = 0; i < kParts; ++i) {
    FlvBuilder tags;
    for (; at < count / kParts * (i + 1); ++at) tags.tag(8, timeOf(at), orv::test::payload(8, 100, at));
    publisher.send(str(tags.bytes()).substr(flv::kFirstTagPosition));
    ASSERT_TRUE(eventually([&] { return durationAt(server.port) == timeOf(at - 1); }));
    memory[i] = server.memory();
    std::filesystem::rename(dir.path("live.flv"), part(i));
  }
#if !defined(ORV_ASAN) && !defined(ORV_TSAN)  // They keep what was freed.
  EXPECT_LT(memory[3], memory[1] + 1024) << "pages after 24 and after 12 hours";
#endif

  u32 next = 0;
  for (u32 i = 0; i < kParts; ++i) {
    const Outcome checked = flvhost("check " + part(i));
    EXPECT_EQ(checked.exitCode, 0) << checked.out << checked.err;
    for (const auto& tag : tagsOf(flvhost("play -o - " + part(i)).out)) {
      if (tag.type != flv::kTypeAudio) continue;
      ASSERT_EQ(tag.time, timeOf(next)) << next;
      ASSERT_EQ(tag.data, orv::test::payload(8, 100, next++)) << next;
    }
  }
  EXPECT_EQ(next, count);
}

// Those that take nothing are dropped, those that leave forgotten, and the others told where a file was cut.
TEST_F(Server, viewersEndInOrder) {
  film("film.flv", movie(20'000).bytes());
  start([](ServerOptions& options) { options.patience = std::chrono::seconds(1); });
  const Wire stuck(port, "GET /film.flv HTTP/1.0\r\n\r\n");
  EXPECT_TRUE(eventually([&] { return metric("dropped_total") == "1"; }));
  EXPECT_TRUE(eventually([&] { return metric("viewers") == "0"; }));
  { const Wire leaves(port, "GET /film.flv HTTP/1.0\r\n\r\n"); }
  EXPECT_TRUE(eventually([&] { return metric("connections") == "1"; })) << "the question's own";

  const Wire viewer(port, "GET /film.flv HTTP/1.1\r\nHost: localhost\r\n\r\n");
  EXPECT_THAT(viewer.until("\r\n\r\n"), HasSubstr("chunked"));
  std::filesystem::resize_file(dir.path("film.flv"), 1000);
  const std::string rest = viewer.rest();
  EXPECT_TRUE(rest.size() > 100'000 && !rest.ends_with(kLastChunk));
  EXPECT_EQ(metric("failed_loads_total"), "1");
}

}  // namespace
}  // namespace orv::host::test
