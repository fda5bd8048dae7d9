// A whole host in memory: one plain object a test, with a call log, its own clock and faults on demand.

#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "support/FileImage.h"
#include "support/TestContext.h"

namespace orv::test {

enum class Op { open, close, read, write, fstat, stat, unlink, mkdir };

// One call of the file service. Fields that the operation doesn't have keep their defaults.
struct Call {
  Op op;
  std::string path;  // Of the descriptor, for the operations that take one.
  int fd = -1;
  i64 position = -1;
  u32 size = 0;
  int flags = 0;
  int mode = 0;
  int result = 0;
};

enum class Fault {
  fails,       // -1, and nothing happens; a close still closes
  fallsShort,  // a read or write of half the size; any other operation fails
};

// Files are named as the module names them, ".flv" included. Calls are serialized by a lock; the test's own
// access to the fields is not.
class MemoryHost final : public TestContext, public IFileService {
 public:
  struct File {
    FileImage image;
    i64 modificationTime = 0;
  };

  // The test's hand on the files. Each change moves the file's time by `clockStep`.
  void put(const std::string& path, FileImage image);
  void append(const std::string& path, const Bytes& bytes);
  void cut(const std::string& path, i64 size);
  void overwrite(const std::string& path, i64 position, const Bytes& bytes);
  void remove(const std::string& path) { files_.erase(path); }
  bool exists(const std::string& path) const { return files_.contains(path); }
  File& file(const std::string& path) { return *files_.at(path); }

  i64 clock = 1'000'000;
  i64 clockStep = 1;  // 0: changes that no reader can notice.
  int firstDescriptor = 3;
  bool protectsFiles = false;  // Refuses to cut a file that holds bytes when it is opened.

  std::vector<Call> calls;
  u32 count(Op op) const;
  void clearCalls() { calls.clear(); }
  i64 bytesRead() const;  // Sum of what reads gave.
  u32 openDescriptors() const { return static_cast<u32>(open_.size()); }
  // Uses of a descriptor that isn't open, and operations that the descriptor wasn't opened for.
  u32 misuses() const { return misuses_; }

  // The n-th call from now, counting only calls of `op` if given, goes wrong; with `andAllLater` every one
  // after it too. One fault at a time; 0 clears it.
  void failCall(u32 n, Fault fault = Fault::fails, std::optional<Op> op = {}, bool andAllLater = false);
  bool faultFired() const { return faultFired_; }
  // Runs before each call takes effect; may change files.
  std::function<void(const Call&)> beforeCall;

  IFileService* getFileService() override { return this; }
  int open(const char* path, int flags, int mode, int reserved) override;
  int close(int fd, int reserved) override;
  int read(int fd, i64 position, void* data, u32 size) override;
  int write(int fd, i64 position, const void* data, u32 size) override;
  int fstat(int fd, FileStat* record, int reserved) override;
  int stat(const char* path, FileStat* record, int reserved) override;
  int unlink(const char* path, int reserved) override;
  void mkdir(const char* path) override;

 private:
  using FilePtr = std::shared_ptr<File>;  // An open descriptor outlives its file's name.
  struct Descriptor {
    std::string path;
    FilePtr file;
    bool writable;
  };

  Call& enter(Call call, u32* size = nullptr);
  Descriptor* descriptor(int fd);
  FilePtr named(const std::string& path) const;
  void changed(File& file) { file.modificationTime = clock += clockStep; }
  static int describe(const FilePtr& file, FileStat* record);

  std::recursive_mutex mutex_;
  std::map<std::string, FilePtr> files_;
  std::map<int, Descriptor> open_;
  u32 misuses_ = 0;
  u32 faultIn_ = 0;  // Matching calls until the fault; 0: none is set.
  Fault fault_ = Fault::fails;
  std::optional<Op> faultOp_;
  bool faultStays_ = false;
  bool faultFired_ = false;
};

}  // namespace orv::test
