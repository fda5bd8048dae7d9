#include "platform/Directory.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

namespace orv::platform {

namespace {

constexpr mode_t kAnyRead = S_IRUSR | S_IRGRP | S_IROTH;
constexpr mode_t kAnyWrite = S_IWUSR | S_IWGRP | S_IWOTH;
constexpr mode_t kAllModes = S_IRWXU | S_IRWXG | S_IRWXO;

// Hands the reason over to lastErrorCode().
bool succeeded(const std::error_code& error) {
  if (error) errno = error.value();
  return !error;
}

}  // namespace

bool fileState(const char* path, FileState* state) {
  struct stat found {};
  if (::stat(path, &found) != 0) return false;
  state->size = found.st_size;
  state->modified = found.st_mtim.tv_sec;
  state->isDirectory = S_ISDIR(found.st_mode);
  state->readable = (found.st_mode & kAnyRead) != 0;
  state->writable = (found.st_mode & kAnyWrite) != 0;
  return true;
}

bool mayAccess(const char* path, int mode) {
  return ::access(path, mode) == 0;
}

bool makeDirectory(const char* path) {
  return ::mkdir(path, kAllModes) == 0;
}

bool removeDirectory(const char* path) {
  return ::rmdir(path) == 0;
}

bool removeFile(const char* path) {
  return ::unlink(path) == 0;
}

bool renameFile(const char* from, const char* to) {
  return std::rename(from, to) == 0;
}

bool copyFile(const char* from, const char* to) {
  std::error_code error;
  std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing, error);
  return succeeded(error);
}

bool executablePath(std::string* path) {
  std::error_code error;
  *path = std::filesystem::read_symlink("/proc/self/exe", error).string();
  return succeeded(error);
}

}  // namespace orv::platform
