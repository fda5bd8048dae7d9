// What the benchmarks of recordings share: a stopwatch, and a folder for their files.

#pragma once

#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>

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
