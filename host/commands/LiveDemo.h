// The demo's second half: a file's tags as a live stream, recorded, followed, mirrored and compared.

#pragma once

#include "host/commands/Commands.h"

namespace orv::host {

// Records into a temporary folder, which is gone at the end. Good if all that could be recorded came out as
// it went in; a file of which nothing can be recorded is good too.
ExitCode showLiveRecording(const DemoOptions& options);

}  // namespace orv::host
