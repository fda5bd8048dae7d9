// How native file names and the names that the module works with become each other.
//
// The module separates with backslashes and appends ".flv" to every name. So that any file can be named to
// it, whatever its ending and its bytes, a module path is the absolute native path with these changes, each
// of which can be undone without any memory of what was made:
//   "/"                               becomes a backslash
//   "%" and all but printable ASCII   become "%" and two hexadecimal digits
//   an ending ".flv"                  is left away
//   any other ending                  stays, and a bare "%" behind it says that ".flv" isn't part of the name
// An address of a web server is taken as it stands, its query included.
// "/films/clip.flv" is "\films\clip"; "/films/clip.bin" is "\films\clip.bin%", and the module then asks for
// "\films\clip.bin%.flv".

#pragma once

#include <string>
#include <string_view>

namespace orv::host {

// Whether `name`, a native name or a module path, is the address of an object on a web server.
bool isRemote(std::string_view name);

// What to hand to IQVStreamAdaptor::open. A relative name counts from the working directory. Throws Failure
// for an empty name and for one that holds a backslash, which the module would take for a separator.
std::string toModulePath(const std::string& native);

// What the module asks for once it has put ".flv" behind `modulePath`.
inline std::string moduleFileName(const std::string& modulePath) {
  return modulePath + ".flv";
}

// The native name of a path that the module hands to the file service. A "%" without two hexadecimal digits
// behind it stands for itself.
std::string toNativePath(std::string_view moduleFileName);

}  // namespace orv::host
