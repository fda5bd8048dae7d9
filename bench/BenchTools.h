// What benchmarks share: a stopwatch, the kernel's counts, and a folder for their files.

#pragma once

#include <stdlib.h>
#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/Types.h"

namespace orv::bench {

// Takes the thread's processor time, the kernel's share included: what else runs on the machine doesn't
// count.
class Stopwatch {
 public:
  template <class Work>
  void time(Work work) {
    const double start = now();
    work();
    last_ = now() - start;
    total_ += last_;
  }
  double last() const { return last_; }
  double total() const { return total_; }

 private:
  static double now() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
  }

  double last_ = 0;
  double total_ = 0;
};

// Page faults of the process, so far.
inline i64 pageFaults() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_minflt;
}

// How often the thread has given up the processor to wait for something, so far.
inline i64 threadWaits() {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  return usage.ru_nvcsw;
}

// A folder in FLV_BENCH_DIR, or else in the temporary directory; removed with its files.
class Folder {
 public:
  Folder() {
    namespace fs = std::filesystem;
    const char* const base = std::getenv("FLV_BENCH_DIR");
    path_ = (base ? fs::path(base) : fs::temp_directory_path()) / "flv_bench_XXXXXX";
    if (!mkdtemp(path_.data())) std::abort();
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  std::string operator/(const std::string& name) const { return path_ + '/' + name; }
  // The path of a file as the module is given it.
  std::string film(const std::string& name = "film") const {
    std::string path = *this / name;
    std::replace(path.begin(), path.end(), '/', '\\');
    return path;
  }

 private:
  std::string path_;
};

}  // namespace orv::bench
