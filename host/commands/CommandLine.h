// Reads the command line and runs the subcommand that it names.

#pragma once

namespace orv::host {

// The exit code. Errors have been printed on standard error.
int runCommandLine(int argc, const char* const* argv);

}  // namespace orv::host
