#include "modules/streams/flv/KTFLVPersist.h"

#include <memory>
#include <new>
#include <utility>

#include "modules/streams/flv/OpenFile.h"
#include "platform/Descriptor.h"
#include "util/KTThrowable.h"

namespace orv::flv {
namespace {

// The directory of a file; the whole path where it has no dot or no backslash.
KTWideString directoryOf(const KTWideString& path) {
  const i32 separator = path.rfind(u'\\');
  return path.find(u'.') >= 0 && separator >= 0 ? path.left(separator) : path;
}

}  // namespace

KTFLVPersist::KTFLVPersist(const KTWideString& path, const IBackupConnPtr& conn, IFileService* service)
    : filePath_(path), filePathNarrow_(toNarrow(path)), backupConn_(conn), fileService_(service) {}

KTFLVPersist::~KTFLVPersist() {
  KTFLVPersist::close();
}

bool KTFLVPersist::open() {
  if (fd_ != -1) return true;
  int flags = openflags::readWrite;
  int mode = 0;
  FileStat record{};
  if (fileService_->stat(toNarrow(filePath_).c_str(), &record, 0) != 0) {
    fileService_->mkdir(toNarrow(directoryOf(filePath_)).c_str());
    flags = openflags::createTruncate;
    mode = openflags::ownerReadWrite;
  }
  fd_ = fileService_->open(toNarrow(filePath_).c_str(), flags, mode, 0);
  if (fd_ != -1 && backupConn_) backupConn_->open(filePathNarrow_, flags, mode);
  return fd_ != -1;
}

bool KTFLVPersist::close() {
  if (fd_ == -1) return true;
  fileService_->close(fd_, 0);
  fd_ = -1;
  if (backupConn_) backupConn_->close(filePathNarrow_);
  return true;
}

i64 KTFLVPersist::write(const void* data, u32 size) {
  if (fd_ == -1) return -1;
  const int written = fileService_->write(fd_, writePosition_, data, size);
  if (written <= 0) return written;
  if (backupConn_) {
    backupConn_->seek(filePathNarrow_, writePosition_, fromStart);
    backupConn_->write(filePathNarrow_, data, size);
  }
  writePosition_ += written;
  return written;
}

i64 KTFLVPersist::seek(i64 offset, int whence) {
  if (fd_ == -1) return -1;
  i64 position = -1;
  if (whence == fromStart) {
    position = offset;
  } else if (whence == fromEnd) {
    const i64 size = sizeOf(fileService_, fd_);
    if (size >= 0) position = size + offset;
  }
  writePosition_ = position;
  if (position != -1 && backupConn_) backupConn_->seek(filePathNarrow_, offset, whence);
  return position;
}

bool KTFLVPersist::unlink() {
  if (fileService_->unlink(toNarrow(filePath_).c_str(), 0) != 0) return false;
  if (backupConn_) backupConn_->unlink(filePathNarrow_);
  return true;
}

int KTFLVPersist::fd() const {
  return fd_;
}

void KTFLVPersist::setBackupConn(const IBackupConnPtr& conn) {
  if (backupConn_ || !conn) return;
  const KTString path = toNarrow(filePath_);
  backupConn_ = conn;
  const bool wasOpen = fd_ != -1;
  // The connection hears nothing of this: for it the file is not open yet.
  if (wasOpen) fileService_->close(std::exchange(fd_, -1), 0);
  const int copyFd = fileService_->open(path.c_str(), openflags::readOnly, 0, 0);
  if (copyFd != -1) {
    sendCopy(path, copyFd);
    fileService_->close(copyFd, 0);
  }
  if (wasOpen) fd_ = fileService_->open(path.c_str(), openflags::readWrite, openflags::ownerReadWrite, 0);
}

// Sends the whole file in one piece, or nothing where it can't be had in one piece.
void KTFLVPersist::sendCopy(const KTString& name, int fd) {
  const i64 size = sizeOf(fileService_, fd);
  if (!KT_HOLDS(size >= 0) || size > 0xFFFFFFFF) return;
  const auto count = static_cast<u32>(size);
  const std::unique_ptr<u8[]> block(new (std::nothrow) u8[count]);
  if (!block) return;
  if (!KT_HOLDS(platform::readDescriptor(fd, block.get(), count).bytes == size)) return;
  backupConn_->open(name, openflags::createTruncate, openflags::ownerReadWrite);
  backupConn_->write(name, block.get(), count);
  backupConn_->close(name);
}

}  // namespace orv::flv
