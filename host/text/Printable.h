// Foreign text on its way to a terminal.

#pragma once

#include <string>
#include <string_view>

namespace orv::host {

// Returns `text` with everything that a terminal might obey, or can't show, as "\x1b": control characters,
// those behind ASCII included, and bytes that are no UTF-8.
std::string printable(std::string_view text);

// Returns the JSON text `json`, which is UTF-8, with the control characters that JSON leaves as they are
// escaped: DEL and those behind ASCII. They stand in its strings alone.
std::string printableJson(std::string_view json);

}  // namespace orv::host
