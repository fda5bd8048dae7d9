// The page that the server shows at "/": a list of what it serves, and a player.

#pragma once

namespace orv::host {

extern const char kPage[];
extern const char kPageScript[];

}  // namespace orv::host
