#include "platform/Descriptor.h"

#include <cerrno>

namespace orv::platform {

int lastErrorCode() {
  return errno;
}

}  // namespace orv::platform
