#include "host/files/HostFiles.h"

#include "host/files/ModulePath.h"

namespace orv::host {

IFileService& HostFiles::at(const char* path) {
  if (isRemote(path)) return remote_;
  return local_;
}

}  // namespace orv::host
