// Removes a directory with all its content.
//
// The walk holds one descriptor, whatever the depth: it goes down by name and up by "..", and makes sure on
// the way up that it came back to where it was. Each level first lists its directories, so that what can't be
// removed is tried once.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Directory.h"

namespace orv::platform {

namespace {

constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

class Handle {
 public:
  explicit Handle(int fd = -1) : fd_(fd) {}
  Handle(Handle&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Handle& operator=(Handle&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Handle() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }
  void release() { fd_ = -1; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_;
};

// A directory on the way from the root of the tree to where the walk stands.
struct Level {
  std::string name;
  dev_t device = 0;
  ino_t number = 0;
  std::vector<std::string> directories;  // Still to be removed.
};

bool isDots(const char* name) {
  return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

bool identify(const Handle& directory, Level* level) {
  struct stat state {};
  if (::fstat(directory.get(), &state) != 0) return false;
  level->device = state.st_dev;
  level->number = state.st_ino;
  return true;
}

bool isDirectory(const Handle& parent, const char* name) {
  struct stat state {};
  return ::fstatat(parent.get(), name, &state, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(state.st_mode);
}

std::vector<std::string> namesIn(const Handle& directory) {
  std::vector<std::string> names;
  Handle own(::openat(directory.get(), ".", kOpenDirectory));
  DIR* const listing = ::fdopendir(own.get());
  if (!listing) return names;
  own.release();  // The listing closes it.
  while (const dirent* const entry = ::readdir(listing)) {
    if (!isDots(entry->d_name)) names.emplace_back(entry->d_name);
  }
  ::closedir(listing);
  return names;
}

class TreeRemover {
 public:
  explicit TreeRemover(Handle root) : here_(std::move(root)) {}

  // Empties the root as far as it can.
  void clear() {
    if (!enter("")) return;
    while (!levels_.empty()) {
      std::vector<std::string>& directories = levels_.back().directories;
      if (directories.empty()) {
        if (!leave()) return;
      } else {
        const std::string name = std::move(directories.back());
        directories.pop_back();
        descend(name);
      }
    }
  }

 private:
  // Lists the current directory; removes files and links at once.
  bool enter(std::string name) {
    Level level;
    level.name = std::move(name);
    if (!identify(here_, &level)) return false;
    for (std::string& entry : namesIn(here_)) {
      if (isDirectory(here_, entry.c_str())) {
        level.directories.push_back(std::move(entry));
      } else {
        ::unlinkat(here_.get(), entry.c_str(), 0);
      }
    }
    levels_.push_back(std::move(level));
    return true;
  }

  // A directory that can't be listed, or left again, may still be empty.
  void descend(const std::string& name) {
    Handle below(::openat(here_.get(), name.c_str(), kOpenDirectory));
    if (!below || ::faccessat(below.get(), ".", X_OK, AT_EACCESS) != 0) {
      ::unlinkat(here_.get(), name.c_str(), AT_REMOVEDIR);
      return;
    }
    std::swap(here_, below);
    if (!enter(name)) here_ = std::move(below);
  }

  // Goes back to the level above and removes the directory just left. Returns false when the level above has
  // changed.
  bool leave() {
    const std::string name = std::move(levels_.back().name);
    levels_.pop_back();
    if (levels_.empty()) return true;
    here_ = Handle(::openat(here_.get(), "..", kOpenDirectory));
    Level now;
    if (!here_ || !identify(here_, &now)) return false;
    if (now.device != levels_.back().device || now.number != levels_.back().number) return false;
    ::unlinkat(here_.get(), name.c_str(), AT_REMOVEDIR);
    return true;
  }

  Handle here_;
  std::vector<Level> levels_;
};

std::string_view lastElement(std::string_view path) {
  return path.substr(path.rfind('/') + 1);
}

bool isLink(const char* path) {
  struct stat state {};
  return ::lstat(path, &state) == 0 && S_ISLNK(state.st_mode);
}

}  // namespace

bool removeTree(std::string path) {
  while (!path.empty() && path.back() == '/')
    path.pop_back();  // A link with a slash behind it would be followed.
  const std::string_view last = lastElement(path);
  if (last.empty() || last == "." || last == "..") return false;
  if (isLink(path.c_str())) return removeFile(path.c_str());
  if (Handle root{::open(path.c_str(), kOpenDirectory)}) TreeRemover(std::move(root)).clear();
  return removeDirectory(path.c_str());
}

}  // namespace orv::platform
