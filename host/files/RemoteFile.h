// An object on a web server as a file: read at positions, through a small cache of its blocks.

#pragma once

#include <atomic>
#include <chrono>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/files/HttpRanges.h"
#include "host/text/Failure.h"

namespace orv::host {

// The object has become another one since it was looked at. What was read of it before doesn't belong
// together with what is read from now on.
class RemoteChanged : public std::exception {
 public:
  const char* what() const noexcept override { return "the object has changed"; }
};

// Each state that the object is met in gets a running number, its stamp; all that is read under one stamp
// belongs to one state. Safe from any thread; one request is under way at a time.
class RemoteFile {
 public:
  struct Look {
    i64 size;
    u32 stamp;  // Never 0.
  };
  // How long an answer of the server holds before the object is looked at again.
  static constexpr std::chrono::milliseconds kFreshFor{1000};

  RemoteFile(HttpRanges& http, std::string url, std::chrono::milliseconds freshFor = kFreshFor)
      : http_(http), url_(std::move(url)), freshFor_(freshFor) {}

  const std::string& url() const { return url_; }
  // What the object is now, or was a moment ago. Throws HttpFault.
  Look look();
  // The stamp last given, without a request; 0 before the first look.
  u32 stamp() const;
  // Throws Failure if the last request failed: what it was made for got no answer then.
  void requireReached() const;
  // Has the bytes from `begin` to `end` near, as far as one request brings them. For the sake of speed alone:
  // a failure shows when they are read.
  void fetch(i64 begin, i64 end);
  // While one lives, whoever reads a page in the middle of the object looks for a place that will be played,
  // and gets the module's whole segment at once.
  class Seeking {
   public:
    explicit Seeking(RemoteFile& file) : file_(file) { ++file_.seekers_; }
    ~Seeking() { --file_.seekers_; }
    Seeking(const Seeking&) = delete;
    Seeking& operator=(const Seeking&) = delete;

   private:
    RemoteFile& file_;
  };
  // Reads up to `size` bytes of the state with `stamp`; fewer at its end alone. Throws RemoteChanged,
  // HttpFault.
  std::size_t read(u32 stamp, i64 position, u8* out, std::size_t size);

 private:
  using Clock = std::chrono::steady_clock;
  struct Block {
    std::vector<u8> bytes;
    std::list<i64>::iterator age;
  };

  void ask(i64 position, u32 size);
  void request(i64 position, u32 size);
  void become(const ObjectState& state);
  void keep(i64 position, const std::vector<u8>& bytes);
  bool isAtFrontier(i64 position) const;
  void fetchAround(i64 position, std::size_t size, bool goesForward);
  std::size_t takeCached(i64 position, u8* out, std::size_t size);

  HttpRanges& http_;
  const std::string url_;
  const std::chrono::milliseconds freshFor_;
  std::atomic<int> seekers_{0};
  mutable std::mutex mutex_;
  // Under mutex_.
  ObjectState state_;
  u32 stamp_ = 0;
  Clock::time_point lookedAt_{};
  std::string fault_;            // Of the last request; empty if it went well.
  std::map<i64, Block> blocks_;  // By number.
  std::list<i64> ages_;          // Block numbers, the one used last in front.
  i64 nextExpected_ = -1;        // Where a reader that goes forward would ask next.
  i64 frontier_ = -1;            // Up to here its bytes have been fetched; -1 while nobody goes forward.
  u32 readAhead_ = 0;
};

// Reports what can't be done with an object.
Failure remoteFailure(const RemoteFile& file, const std::string& reason);

// The objects that this process reads, each once, over one pool of connections. Safe from any thread.
class RemoteFiles {
 public:
  explicit RemoteFiles(HttpLimits limits = {}) : http_(limits) {}
  static RemoteFiles& shared();

  std::shared_ptr<RemoteFile> find(const std::string& url);
  const HttpRanges& http() const { return http_; }

 private:
  HttpRanges http_;
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<RemoteFile>> files_;  // Under mutex_.
};

}  // namespace orv::host
