// The program itself, run as a person or a script would.

#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <thread>
#include <utility>

#include "TempDir.h"

namespace orv::host::test {

struct Outcome {
  int exitCode;  // -1 if a signal ended it.
  std::string out;
  std::string err;
};

// A run that is fed, and ended, step by step.
class Running {
 public:
  // `command` and `before`, which the shell does first, are words for it.
  explicit Running(const std::string& command, const std::string& before = "") {
    std::signal(SIGPIPE, SIG_IGN);
    std::string line =
        before + " exec " FLVHOST_PATH " " + command + " >" + dir_.path("out") + " 2>" + dir_.path("err");
    std::string shell = "sh", option = "-c", module = "FLVADAPTOR_MODULE=" FLV_MODULE_PATH;
    char* argv[] = {shell.data(), option.data(), line.data(), nullptr};
    char* environment[] = {module.data(), nullptr};
    int ends[2];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    posix_spawn_file_actions_adddup2(&actions, ends[0], 0);
    const int failed = posix_spawn(&child_, "/bin/sh", &actions, nullptr, argv, environment);
    posix_spawn_file_actions_destroy(&actions);
    ::close(ends[0]);
    input_ = ends[1];
    if (failed) throw std::runtime_error("flvhost doesn't start");
  }
  ~Running() { end(SIGKILL); }

  // What the program no longer takes is dropped.
  void feed(const Bytes& bytes) {
    for (std::size_t at = 0; at < bytes.size();) {
      const ssize_t done = ::write(input_, bytes.data() + at, bytes.size() - at);
      if (done <= 0) return;
      at += static_cast<std::size_t>(done);
    }
  }
  // Whether the program has taken all that was fed.
  bool hasTakenAll() const {
    int waiting = 0;
    return ::ioctl(input_, FIONREAD, &waiting) == 0 && waiting == 0;
  }
  u64 memory() const {  // Resident, in pages.
    u64 size = 0, resident = 0;
    std::ifstream("/proc/" + std::to_string(child_) + "/statm") >> size >> resident;
    return resident;
  }
  void signal(int number) const { ::kill(child_, number); }
  // Its input ends, and it is waited for.
  Outcome wait() {
    end(0);
    return {exitCode_, out(), str(TempDir::read(dir_.path("err")))};
  }
  std::string out() const { return str(TempDir::read(dir_.path("out"))); }

 private:
  void end(int number) {
    if (input_ >= 0) ::close(std::exchange(input_, -1));
    if (child_ == 0) return;
    int status = 0;
    if (number) ::kill(child_, number);
    ::waitpid(std::exchange(child_, 0), &status, 0);
    exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  const TempDir dir_;
  pid_t child_ = 0;
  int input_ = -1;
  int exitCode_ = -1;
};

inline Outcome flvhost(const std::string& command, const Bytes& input = {}) {
  Running run(command);
  run.feed(input);
  return run.wait();
}

// Waits for `condition`. False if it doesn't come true within a minute.
template <class Condition>
bool eventually(Condition condition) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > limit) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace orv::host::test
