#include "util/KTFileUtil.h"

#include <boost/filesystem.hpp>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>

#include "platform/Descriptor.h"
#include "util/KTPathUtil.h"

namespace orv::util::files {

namespace {

constexpr std::size_t kLineSize = 1024;

using paths::toNative;

i64 movedOrFailed(const platform::Transfer& transfer) {
  return transfer.error ? -1 : transfer.bytes;
}

int resultOf(bool good) {
  return good ? 0 : -1;
}

}  // namespace

i64 readAll(int fd, void* buffer, i64 count) {
  return movedOrFailed(platform::readDescriptor(fd, buffer, count));
}

i64 writeAll(int fd, const void* buffer, i64 count) {
  return movedOrFailed(platform::writeDescriptor(fd, buffer, count));
}

i64 seek64(int fd, i64 offset, int whence) {
  return platform::seekDescriptor(fd, offset, whence);
}

i64 extendTo(int fd, i64 offset) {
  const char zero = 0;
  const bool written = seek64(fd, offset, SEEK_SET) == offset && writeAll(fd, &zero, 1) == 1;
  return written ? offset : -1;
}

bool setSparse(int fd) {
  return platform::isRegularFile(fd);
}

int openTempFile() {
  return platform::openTemporaryFile("orv");
}

bool appendLine(const KTWideString& path, const char* format, ...) {
  char line[kLineSize];
  std::va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  if (length < 0) return false;
  std::FILE* const stream = std::fopen(toNative(path).c_str(), "a+");
  if (!stream) return false;
  const std::string text = std::string(line) + "\n";
  const bool written = std::fwrite(text.data(), 1, text.size(), stream) == text.size();
  return std::fclose(stream) == 0 && written;
}

int makeDirectory(const KTWideString& path) {
  return resultOf(platform::makeDirectory(toNative(path).c_str()));
}

bool removeDirectory(const KTWideString& path) {
  return platform::removeDirectory(toNative(path).c_str());
}

bool deleteFile(const KTWideString& path) {
  return platform::removeFile(toNative(path).c_str());
}

bool renameFile(const KTWideString& from, const KTWideString& to) {
  return platform::renameFile(toNative(from).c_str(), toNative(to).c_str());
}

bool copyFile(const KTWideString& from, const KTWideString& to) {
  return platform::copyFile(toNative(from).c_str(), toNative(to).c_str());
}

int stat(const KTWideString& path, platform::FileState* state) {
  return resultOf(platform::fileState(toNative(path).c_str(), state));
}

int access(const KTWideString& path, int mode) {
  return resultOf(platform::mayAccess(toNative(path).c_str(), mode));
}

bool isDirectory(const KTWideString& path) {
  const KTWideString stripped = paths::stripTrailingSeparator(path);
  const KTWideString& name = stripped.empty() ? path : stripped;  // The root is all separator.
  platform::FileState state;
  return stat(name, &state) == 0 ? state.isDirectory : access(name, 0) == 0;
}

bool isReadOnly(const KTWideString& path) {
  platform::FileState state;
  return stat(path, &state) == 0 && state.readable && !state.writable;
}

bool removeTree(const KTWideString& path) {
  return platform::removeTree(toNative(path).c_str());
}

bool createDirectories(const KTWideString& path) {
  const std::string native = toNative(path).c_str();
  const std::string directory = native.substr(0, native.rfind('/') + 1);
  if (directory.empty()) return !native.empty();  // A bare file name needs none.
  try {
    boost::filesystem::create_directories(directory);
    return true;
  } catch (const boost::filesystem::filesystem_error&) {
    return false;
  }
}

}  // namespace orv::util::files
