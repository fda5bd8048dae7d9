#include "support/MemoryHost.h"

#include <numeric>

namespace orv::test {
namespace {

constexpr int kFailed = -1;

}  // namespace

void MemoryHost::put(const std::string& path, FileImage image) {
  auto& file = files_[path];
  if (!file) file = std::make_shared<File>();
  file->image = std::move(image);
  changed(*file);
}

void MemoryHost::append(const std::string& path, const Bytes& bytes) {
  file(path).image.append(bytes);
  changed(file(path));
}

void MemoryHost::cut(const std::string& path, i64 size) {
  file(path).image.resize(size);
  changed(file(path));
}

void MemoryHost::overwrite(const std::string& path, i64 position, const Bytes& bytes) {
  file(path).image.write(position, bytes.data(), static_cast<u32>(bytes.size()));
  changed(file(path));
}

u32 MemoryHost::count(Op op) const {
  return static_cast<u32>(
      std::count_if(calls.begin(), calls.end(), [&](auto& call) { return call.op == op; }));
}

i64 MemoryHost::bytesRead() const {
  return std::accumulate(calls.begin(), calls.end(), i64{0}, [](i64 sum, const Call& call) {
    return sum + (call.op == Op::read ? std::max(call.result, 0) : 0);
  });
}

void MemoryHost::failCall(u32 n, Fault fault, std::optional<Op> op, bool andAllLater) {
  faultIn_ = n;
  fault_ = fault;
  faultOp_ = op;
  faultStays_ = andAllLater;
  faultFired_ = false;
}

// Logs the call and decides its fate: its result is `kFailed` if it is to fail, and `*size` is what is left
// of a read or write that is to fall short.
Call& MemoryHost::enter(Call call, u32* size) {
  if (beforeCall) beforeCall(call);
  calls.push_back(std::move(call));
  Call& entered = calls.back();
  if (faultIn_ == 0 || (faultOp_ && *faultOp_ != entered.op)) return entered;
  if (faultIn_ > 1) {
    --faultIn_;
    return entered;
  }
  if (!faultStays_) faultIn_ = 0;
  faultFired_ = true;
  if (fault_ == Fault::fallsShort && size)
    *size /= 2;
  else
    entered.result = kFailed;
  return entered;
}

MemoryHost::Descriptor* MemoryHost::descriptor(int fd) {
  const auto found = open_.find(fd);
  if (found != open_.end()) return &found->second;
  ++misuses_;
  return nullptr;
}

MemoryHost::FilePtr MemoryHost::named(const std::string& path) const {
  const auto found = files_.find(path);
  return found == files_.end() ? nullptr : found->second;
}

int MemoryHost::open(const char* path, int flags, int mode, int) {
  const std::lock_guard lock(mutex_);
  Call& call = enter({.op = Op::open, .path = path, .flags = flags, .mode = mode});
  if (call.result == kFailed) return kFailed;
  FilePtr file = named(path);
  if (flags == openflags::createTruncate) {
    if (protectsFiles && file && file->image.size() > 0) return call.result = kFailed;
    if (!file) file = files_[path] = std::make_shared<File>();
    file->image.resize(0);
    changed(*file);
  }
  const bool known =
      flags == openflags::readOnly || flags == openflags::readWrite || flags == openflags::createTruncate;
  if (!known) ++misuses_;
  if (!file || !known) return call.result = kFailed;
  int fd = firstDescriptor;
  while (open_.contains(fd)) ++fd;
  open_[fd] = {path, file, flags != openflags::readOnly};
  return call.result = call.fd = fd;
}

int MemoryHost::close(int fd, int) {
  const std::lock_guard lock(mutex_);
  const Descriptor* const open = descriptor(fd);
  Call& call = enter({.op = Op::close, .path = open ? open->path : "", .fd = fd});
  if (open)
    open_.erase(fd);
  else
    call.result = kFailed;
  return call.result;
}

int MemoryHost::read(int fd, i64 position, void* data, u32 size) {
  const std::lock_guard lock(mutex_);
  const Descriptor* const open = descriptor(fd);
  u32 part = size;
  Call& call = enter({Op::read, open ? open->path : "", fd, position, size}, &part);
  if (!open || call.result == kFailed) return call.result = kFailed;
  return call.result = static_cast<int>(open->file->image.read(position, data, part));
}

int MemoryHost::write(int fd, i64 position, const void* data, u32 size) {
  const std::lock_guard lock(mutex_);
  const Descriptor* const open = descriptor(fd);
  u32 part = size;
  Call& call = enter({Op::write, open ? open->path : "", fd, position, size}, &part);
  if (open && !open->writable) ++misuses_;
  if (!open || !open->writable || call.result == kFailed) return call.result = kFailed;
  open->file->image.write(position, data, part);
  changed(*open->file);
  return call.result = static_cast<int>(part);
}

int MemoryHost::describe(const FilePtr& file, FileStat* record) {
  if (!file) return kFailed;
  *record = {};
  record->size = file->image.size();
  record->modificationTime = file->modificationTime;
  return 0;
}

int MemoryHost::fstat(int fd, FileStat* record, int) {
  const std::lock_guard lock(mutex_);
  const Descriptor* const open = descriptor(fd);
  Call& call = enter({.op = Op::fstat, .path = open ? open->path : "", .fd = fd});
  if (!open || call.result == kFailed) return call.result = kFailed;
  return call.result = describe(open->file, record);
}

int MemoryHost::stat(const char* path, FileStat* record, int) {
  const std::lock_guard lock(mutex_);
  Call& call = enter({.op = Op::stat, .path = path});
  if (call.result == kFailed) return kFailed;
  return call.result = describe(named(path), record);
}

int MemoryHost::unlink(const char* path, int) {
  const std::lock_guard lock(mutex_);
  Call& call = enter({.op = Op::unlink, .path = path});
  if (call.result != kFailed && files_.erase(path) == 0) call.result = kFailed;
  return call.result;
}

void MemoryHost::mkdir(const char* path) {
  const std::lock_guard lock(mutex_);
  enter({.op = Op::mkdir, .path = path});
}

}  // namespace orv::test
