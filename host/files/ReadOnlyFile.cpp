#include "host/files/ReadOnlyFile.h"

#include <fcntl.h>

#include "host/files/FileCheck.h"
#include "host/files/ModulePath.h"
#include "host/files/RemoteFile.h"
#include "host/text/Failure.h"

namespace orv::host {

ReadOnlyFile::ReadOnlyFile(const std::string& name) {
  if (isRemote(name)) {
    remote_ = RemoteFiles::shared().find(name);
    checkReadable(name);
    stamp_ = remote_->stamp();
  } else {
    file_ = Descriptor::open(name, O_RDONLY);
  }
}

std::size_t ReadOnlyFile::read(i64 position, u8* out, std::size_t size) const {
  if (remote_) {
    try {
      return remote_->read(stamp_, position, out, size);
    } catch (const std::exception& fault) {
      throw remoteFailure(*remote_, fault.what());
    }
  }
  return readAt(file_.get(), position, out, size).bytes;
}

}  // namespace orv::host
