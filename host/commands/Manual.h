// Man pages and shell completion, made from the same options and texts as --help.

#pragma once

#include <CLI/App.hpp>
#include <string>

namespace orv::host {

// Writes into an existing folder: flvhost.1, a page flvhost-COMMAND.1 for each command, flvhost.bash for bash
// and _flvhost for zsh. Throws Failure.
void writeManual(const CLI::App& app, const std::string& folder);

}  // namespace orv::host
