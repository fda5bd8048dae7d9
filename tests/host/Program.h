// The program itself, run as a person or a script would.

#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include "TempDir.h"

namespace orv::host::test {

struct Outcome {
  int exitCode;  // -1 if a signal ended it.
  std::string out;
  std::string err;
};

inline Outcome flvhost(std::vector<std::string> args) {
  const TempDir dir;
  args.insert(args.begin(), FLVHOST_PATH);
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  const std::string out = dir.path("out"), err = dir.path("err");
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT, 0600);
  std::string module = std::string("FLVADAPTOR_MODULE=") + FLV_MODULE_PATH;
  char* environment[] = {module.data(), nullptr};
  pid_t child = 0;
  const int failed = posix_spawn(&child, FLVHOST_PATH, &actions, nullptr, argv.data(), environment);
  posix_spawn_file_actions_destroy(&actions);
  if (failed) throw std::runtime_error("flvhost doesn't start");
  int status = 0;
  ::waitpid(child, &status, 0);
  const auto text = [](const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); };
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text(TempDir::read(out)), text(TempDir::read(err))};
}

}  // namespace orv::host::test
