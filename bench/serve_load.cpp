// Viewers of `flvhost serve` on loopback, beside nginx that serves the same file: how fast one is served, how
// many at a time, and how soon a live stream reaches them. Every byte of every viewer is compared, and every
// live tag's number. Ends with 1 if any was wrong, lost or out of order.
//
// usage: serve_load FLVHOST [SECONDS [PARTS]]      needs nginx; SECONDS (10) for each crowd; PARTS: some of
// "one", "crowd" and "live", in one word

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <numeric>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "BenchTools.h"
#include "server/FLVTag.h"

namespace orv::bench {
namespace {

using Bytes = std::vector<u8>;

constexpr int kNginxPort = 18911;
constexpr u32 kFilmSeconds = 7200, kFilmRate = 120'000, kFramesPerSecond = 25;
constexpr unsigned kCrowd = 500, kSpeed = 8;
constexpr unsigned kLiveCrowd = 200, kLiveEveryMs = 10, kLiveTagSize = 2500;

std::vector<pid_t> running;  // Changed by the main thread alone, before and after all measuring.

[[noreturn]] void fail(const std::string& why) {
  std::fprintf(stderr, "serve_load: %s\n", why.c_str());
  for (const pid_t pid : running) kill(pid, SIGTERM);
  std::_Exit(1);
}

double now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

void sleepUntil(double when) {
  const double left = when - now();
  if (left > 0) std::this_thread::sleep_for(std::chrono::duration<double>(left));
}

const Bytes& noise() {
  static const Bytes bytes = [] {
    Bytes made(1 << 20);
    std::mt19937 random(1);
    std::generate(made.begin(), made.end(), [&] { return static_cast<u8>(random()); });
    return made;
  }();
  return bytes;
}

void addHeader(Bytes& out) {
  const u8 header[flv::kFirstTagPosition] = {'F', 'L', 'V', 1, 1, 0, 0, 0, flv::kFileHeaderSize};
  out.insert(out.end(), header, header + sizeof header);
}

void addTag(Bytes& out, u32 time, const u8* data, u32 size) {
  const std::size_t at = out.size();
  out.resize(at + size + flv::kTagOverhead);
  flv::writeTagHeader(&out[at], flv::kTypeVideo, size, time, 0);
  std::copy_n(data, size, &out[at + flv::kTagHeaderSize]);
  flv::writeU32(&out[at + flv::kTagHeaderSize + size], size + flv::kTagHeaderSize);
}

Bytes makeFilm() {
  constexpr u32 size = kFilmRate / 8 / kFramesPerSecond;
  Bytes film, data(size);
  addHeader(film);
  for (u32 i = 0; i < kFilmSeconds * kFramesPerSecond; ++i) {
    std::copy_n(noise().begin() + i * 7919 % (noise().size() - size), size, data.begin());
    data[0] = i % 50 == 0 ? 0x12 : 0x22;
    addTag(film, i * 1000 / kFramesPerSecond, data.data(), size);
  }
  return film;
}

// ---- Processes

// Ended on destruction.
class Process {
 public:
  explicit Process(std::vector<std::string> args) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) fail("no pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    if (posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0)
      fail("can't run " + args[0]);
    running.push_back(pid_);
    posix_spawn_file_actions_destroy(&actions);
    ::close(ends[1]);
    out_ = fdopen(ends[0], "r");
  }
  ~Process() {
    kill(pid_, SIGTERM);
    std::erase(running, pid_);
    waitpid(pid_, nullptr, 0);
    std::fclose(out_);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return pid_; }
  std::string line() {
    char text[1024] = "";
    return std::fgets(text, sizeof text, out_) ? text : "";
  }

 private:
  pid_t pid_ = 0;
  std::FILE* out_ = nullptr;
};

// What a process has used until now.
struct Usage {
  double cpu = 0;  // Seconds.
  u64 memory = 0;  // Resident, KiB.
};

Usage usageOf(pid_t pid) {
  const std::string folder = "/proc/" + std::to_string(pid);
  std::stringstream stat;
  stat << std::ifstream(folder + "/stat").rdbuf();
  std::istringstream fields(stat.str().substr(stat.str().rfind(')') + 2));
  std::vector<std::string> words(std::istream_iterator<std::string>(fields), {});
  u64 pages = 0, resident = 0;
  std::ifstream(folder + "/statm") >> pages >> resident;
  return {(std::stod(words[11]) + std::stod(words[12])) / static_cast<double>(sysconf(_SC_CLK_TCK)),
          resident * static_cast<u64>(sysconf(_SC_PAGESIZE)) / 1024};
}

pid_t childOf(pid_t pid) {
  pid_t child = 0;
  const std::string id = std::to_string(pid);
  std::ifstream("/proc/" + id + "/task/" + id + "/children") >> child;
  return child;
}

std::string machineLoad() {
  std::string one;
  std::ifstream("/proc/loadavg") >> one;
  return one;
}

// ---- Viewers

class Connection {
 public:
  explicit Connection(int port, int receiveBuffer = 0)
      : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    if (receiveBuffer > 0) ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<u16>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) fail("can't connect");
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { ::close(fd_); }

  int fd() const { return fd_; }
  void send(const void* data, std::size_t size) const {
    const auto* at = static_cast<const char*>(data);
    while (size > 0) {
      const ssize_t sent = ::send(fd_, at, size, MSG_NOSIGNAL);
      if (sent <= 0) fail("a connection was closed on its sender");
      at += sent;
      size -= static_cast<std::size_t>(sent);
    }
  }
  // Asks for `path` and takes the answer's head.
  void get(const std::string& path) const {
    const std::string request = "GET " + path + " HTTP/1.0\r\n\r\n";
    send(request.data(), request.size());
    std::string head;
    for (char c; !head.ends_with("\r\n\r\n") && ::recv(fd_, &c, 1, 0) == 1;) head += c;
    if (head.find(" 200 ") == std::string::npos) fail(path + ": " + head);
  }
  // 0 at the end, below 0 if nothing has come.
  ssize_t take(u8* out, std::size_t size, int flags = 0) const { return ::recv(fd_, out, size, flags); }

 private:
  const int fd_;
};

// Bytes a second that one viewer gets; the best of some.
double oneViewer(int port, const Bytes& film) {
  const Connection viewer(port);
  viewer.get("/film.flv");
  Bytes buffer(1 << 20);
  std::size_t got = 0;
  const double begin = now();
  for (ssize_t size; (size = viewer.take(buffer.data(), buffer.size())) > 0;
       got += static_cast<std::size_t>(size)) {
    if (got + static_cast<std::size_t>(size) > film.size() ||
        std::memcmp(&film[got], buffer.data(), static_cast<std::size_t>(size)) != 0) {
      fail("one viewer got other bytes");
    }
  }
  if (got != film.size()) fail("one viewer didn't get all bytes");
  return static_cast<double>(got) / (now() - begin);
}

void compareOneViewer(int port, const Bytes& film) {
  double theirs = 0, ours = 0;
  for (int i = 0; i < 5; ++i) {
    theirs = std::max(theirs, oneViewer(kNginxPort, film));
    ours = std::max(ours, oneViewer(port, film));
  }
  std::printf("one viewer: nginx %.0f MB/s, flvhost %.0f MB/s: %.2f of it\n", theirs / 1e6, ours / 1e6,
              ours / theirs);
}

// Prints what a crowd of viewers cost the server.
void tellCost(const Usage& before, const Usage& after, double seconds, unsigned count) {
  const double cpu = (after.cpu - before.cpu) / seconds;
  std::printf(
      "    server: %.1f %% of a core, %.3f ms of CPU a viewer and second, %.0f KiB a viewer; load of the "
      "machine "
      "%s\n",
      cpu * 100, cpu * 1e3 / count,
      (static_cast<double>(after.memory) - static_cast<double>(before.memory)) / count,
      machineLoad().c_str());
}

// Each viewer takes bytes as they fall due, and no more.
void crowd(const char* name, int port, pid_t pid, const Bytes& film, double seconds) {
  constexpr double kRate = kFilmRate / 8.0 * kSpeed;
  const Usage before = usageOf(pid);
  struct Viewer {
    std::unique_ptr<Connection> connection;
    std::size_t got = 0;
  };
  std::vector<Viewer> viewers(kCrowd);
  for (Viewer& viewer : viewers) {
    viewer.connection = std::make_unique<Connection>(port, 64 << 10);
    viewer.connection->get("/film.flv");
  }
  Bytes buffer(1 << 20);
  u64 memory = 0;
  const double begin = now();
  double elapsed = 0;
  for (int round = 1; elapsed < seconds; ++round) {
    sleepUntil(begin + round * 0.02);
    elapsed = now() - begin;
    const auto due = std::min(film.size(), static_cast<std::size_t>(elapsed * kRate));
    for (Viewer& viewer : viewers) {
      while (viewer.got < due) {
        const ssize_t size =
            viewer.connection->take(buffer.data(), std::min(due - viewer.got, buffer.size()), MSG_DONTWAIT);
        if (size == 0) fail("a viewer was left alone");
        if (size < 0) break;
        if (std::memcmp(&film[viewer.got], buffer.data(), static_cast<std::size_t>(size)) != 0) {
          fail("a viewer of many got other bytes");
        }
        viewer.got += static_cast<std::size_t>(size);
      }
    }
    if (round % 25 == 0) memory = std::max(memory, usageOf(pid).memory);
  }
  const auto least = std::min_element(viewers.begin(), viewers.end(),
                                      [](const Viewer& a, const Viewer& b) { return a.got < b.got; });
  const double sum = std::accumulate(viewers.begin(), viewers.end(), 0.0, [](double a, const Viewer& v) {
    return a + static_cast<double>(v.got);
  });
  std::printf("%u viewers of one file, %s: %.1f MB/s, the slowest got %.3f of what was due\n", kCrowd, name,
              sum / elapsed / 1e6, static_cast<double>(least->got) / (elapsed * kRate));
  tellCost(before, {usageOf(pid).cpu, memory}, elapsed, kCrowd);
}

// ---- A live stream

// A tag's data: a key frame's first byte, its number, when it was sent, and noise that depends on the number.
Bytes liveData(u64 number) {
  Bytes data(kLiveTagSize);
  const std::size_t at = number * 7919 % (noise().size() - kLiveTagSize);
  std::copy_n(noise().begin() + static_cast<std::ptrdiff_t>(at), kLiveTagSize, data.begin());
  const double sent = now();
  data[0] = 0x12;
  std::memcpy(&data[1], &number, sizeof number);
  std::memcpy(&data[9], &sent, sizeof sent);
  return data;
}

// Sends a tag every few milliseconds until it is stopped. Returns their number.
u64 publish(int port, const std::atomic<bool>& stop) {
  const Connection publisher(port);
  const std::string head = "PUT /live.flv HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n";
  publisher.send(head.data(), head.size());
  const auto sendChunk = [&](const Bytes& bytes) {
    char size[20];
    const int length = std::snprintf(size, sizeof size, "%zx\r\n", bytes.size());
    Bytes chunk(size, size + length);
    chunk.insert(chunk.end(), bytes.begin(), bytes.end());
    chunk.insert(chunk.end(), {'\r', '\n'});
    publisher.send(chunk.data(), chunk.size());
  };
  Bytes bytes;
  addHeader(bytes);
  const double begin = now();
  u64 number = 0;
  for (; !stop; ++number) {
    addTag(bytes, static_cast<u32>(number * kLiveEveryMs), liveData(number).data(), kLiveTagSize);
    sendChunk(bytes);
    bytes.clear();
    sleepUntil(begin + static_cast<double>((number + 1) * kLiveEveryMs) / 1000);
  }
  publisher.send("0\r\n\r\n", 5);
  std::string answer(1024, '\0');
  if (publisher.take(reinterpret_cast<u8*>(answer.data()), answer.size()) <= 0 ||
      answer.find(" 200 ") == std::string::npos) {
    fail("the publisher: " + answer);
  }
  return number;
}

// Takes a live stream apart and checks each tag.
class LiveViewer {
 public:
  explicit LiveViewer(int port) : connection_(port) { connection_.get("/live.flv?from=-0.1s"); }

  int fd() const { return connection_.fd(); }
  u64 next() const { return next_; }
  // False at the end.
  bool take(Bytes& buffer, std::vector<float>& delays) {
    const ssize_t size = connection_.take(buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size <= 0) return size != 0;
    pending_.insert(pending_.end(), buffer.begin(), buffer.begin() + size);
    const double when = now();
    std::size_t at = 0;
    if (!hasHeader_) {
      if (pending_.size() < flv::kFirstTagPosition) return true;
      at = flv::kFirstTagPosition;
      hasHeader_ = true;
    }
    while (pending_.size() - at >= flv::kTagHeaderSize) {
      const flv::TagHeader header{&pending_[at]};
      const std::size_t whole = header.dataSize() + flv::kTagOverhead;
      if (pending_.size() - at < whole) break;
      if (header.typeByte() == flv::kTypeVideo) {  // Not the metadata in front.
        check(&pending_[at + flv::kTagHeaderSize], header.dataSize(), when, delays);
      }
      at += whole;
    }
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(at));
    return true;
  }

 private:
  void check(const u8* data, u32 size, double when, std::vector<float>& delays) {
    u64 number = 0;
    double sent = 0;
    if (size != kLiveTagSize) fail("a live tag of another size");
    std::memcpy(&number, data + 1, sizeof number);
    std::memcpy(&sent, data + 9, sizeof sent);
    if (isFirst_) next_ = number;
    if (number != next_) fail("a live tag is lost or out of order");
    const std::size_t at = number * 7919 % (noise().size() - kLiveTagSize);
    if (std::memcmp(data + 17, &noise()[at + 17], kLiveTagSize - 17) != 0) fail("a live tag of other bytes");
    // What it starts with had been sent before it came.
    if (!isFirst_ && ++seen_ > 100) delays.push_back(static_cast<float>((when - sent) * 1e3));
    isFirst_ = false;
    ++next_;
  }

  const Connection connection_;
  Bytes pending_;
  bool hasHeader_ = false, isFirst_ = true;
  u64 next_ = 0, seen_ = 0;
};

void liveCrowd(int port, pid_t pid, double seconds) {
  std::atomic<bool> stop{false};
  u64 sent = 0;
  std::thread publisher([&] { sent = publish(port, stop); });
  std::this_thread::sleep_for(std::chrono::seconds(1));  // Some past to start from.
  const Usage before = usageOf(pid);
  const int poll = epoll_create1(EPOLL_CLOEXEC);
  std::vector<std::unique_ptr<LiveViewer>> viewers;
  for (unsigned i = 0; i < kLiveCrowd; ++i) {
    viewers.push_back(std::make_unique<LiveViewer>(port));
    epoll_event event{EPOLLIN, {}};
    event.data.ptr = viewers.back().get();
    epoll_ctl(poll, EPOLL_CTL_ADD, viewers.back()->fd(), &event);
  }
  Bytes buffer(256 << 10);
  std::vector<float> delays;
  std::vector<epoll_event> events(kLiveCrowd);
  const double begin = now();
  Usage after;
  double elapsed = 0;
  for (std::size_t left = viewers.size(); left > 0;) {
    if (!stop && now() - begin > seconds) {
      after = usageOf(pid);
      elapsed = now() - begin;
      stop = true;
    }
    if (now() - begin > seconds + 60) fail("viewers wait for the end of a stream that has ended");
    const int count = epoll_wait(poll, events.data(), static_cast<int>(events.size()), 100);
    for (int i = 0; i < count; ++i) {
      auto& viewer = *static_cast<LiveViewer*>(events[static_cast<std::size_t>(i)].data.ptr);
      if (viewer.take(buffer, delays)) continue;
      epoll_ctl(poll, EPOLL_CTL_DEL, viewer.fd(), nullptr);
      --left;
    }
  }
  publisher.join();
  ::close(poll);
  for (const auto& viewer : viewers) {
    if (viewer->next() != sent) fail("a viewer didn't get the live stream's last tag");
  }
  std::sort(delays.begin(), delays.end());
  const auto share = [&](double part) {
    return static_cast<double>(
        delays[static_cast<std::size_t>(part * static_cast<double>(delays.size() - 1))]);
  };
  std::printf(
      "%u viewers of a live stream of %u kbit/s, flushed every %u ms: delay %.1f ms at the median, %.1f at "
      "p99, %.1f at most; %zu tags timed, all %llu in order to the last\n",
      kLiveCrowd, kLiveTagSize * 8 / kLiveEveryMs, kLiveEveryMs, share(0.5), share(0.99), share(1),
      delays.size(), static_cast<unsigned long long>(sent));
  tellCost(before, after, elapsed, kLiveCrowd);
}

int run(const std::string& flvhost, double seconds, const std::string& parts) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);

  const Folder folder;
  std::filesystem::permissions(folder / "", std::filesystem::perms(0755));
  const Bytes film = makeFilm();
  std::ofstream(folder / "film.flv")
      .write(reinterpret_cast<const char*>(film.data()), static_cast<std::streamsize>(film.size()));
  std::filesystem::last_write_time(folder / "film.flv",
                                   std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
  std::ofstream(folder / "nginx.conf") << "worker_processes 1; daemon off; pid " << folder / "pid"
                                       << "; error_log " << folder / "error.log"
                                       << "; events { worker_connections 4096; } http { access_log off; "
                                          "sendfile on; server { listen 127.0.0.1:"
                                       << kNginxPort << "; root " << folder / ""
                                       << "; } }";
  const Process nginx({"nginx", "-c", folder / "nginx.conf"});
  Process server(
      {flvhost, "serve", folder / "", "--listen", "127.0.0.1:0", "--allow-publish", "--flush-every", "10ms"});
  const std::string line = server.line();
  if (line.find("http") == std::string::npos) fail("the server doesn't start");
  const int port = std::stoi(line.substr(line.rfind(':') + 1));
  while (childOf(nginx.pid()) == 0) sleepUntil(now() + 0.05);
  sleepUntil(now() + 0.5);

  std::printf("machine: %u cores, load %s\n", std::thread::hardware_concurrency(), machineLoad().c_str());
  const auto isAsked = [&](const char* part) {
    return parts.empty() || parts.find(part) != std::string::npos;
  };
  if (isAsked("one")) compareOneViewer(port, film);
  if (isAsked("crowd")) {
    crowd("nginx", kNginxPort, childOf(nginx.pid()), film, seconds);
    crowd("flvhost", port, server.pid(), film, seconds);
  }
  if (isAsked("live")) liveCrowd(port, server.pid(), seconds);
  return 0;
}

}  // namespace
}  // namespace orv::bench

int main(int count, char** args) {
  if (count < 2) {
    std::fprintf(stderr, "usage: serve_load FLVHOST [SECONDS [PARTS]]\n");
    return 2;
  }
  return orv::bench::run(args[1], count > 2 ? std::atof(args[2]) : 10, count > 3 ? args[3] : "");
}
