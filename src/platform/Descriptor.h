// Plain file descriptors of the operating system.

#pragma once

namespace orv::platform {

// The code of the calling thread's last failed system call.
int lastErrorCode();

}  // namespace orv::platform
