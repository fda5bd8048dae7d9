#include "host/files/ModulePath.h"

#include <strings.h>

#include <filesystem>

#include "host/text/Failure.h"

namespace orv::host {

namespace {

constexpr std::string_view kEnding = ".flv";
constexpr std::string_view kForeignEnding = "%.flv";  // Behind a native name that doesn't end in ".flv".

bool isPlain(char c) {
  return c >= ' ' && c <= '~' && c != '%';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

void appendEscaped(std::string& out, char c) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  const auto byte = static_cast<unsigned char>(c);
  out += '%';
  out += kDigits[byte >> 4];
  out += kDigits[byte & 15];
}

bool startsWithNoCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && ::strncasecmp(text.data(), prefix.data(), prefix.size()) == 0;
}

}  // namespace

bool isRemote(std::string_view name) {
  for (const std::string_view scheme : {"http://", "https://", "http:\\\\", "https:\\\\"}) {
    if (startsWithNoCase(name, scheme)) return true;
  }
  return false;
}

std::string toModulePath(const std::string& native) {
  if (native.empty()) throw hostFault("the file name is empty");
  std::string absolute = isRemote(native) ? native : std::filesystem::absolute(native).native();
  if (absolute.find('\\') != std::string::npos) {
    throw hostFault(absolute + ": the module cannot open a name with a backslash");
  }
  const bool endsInFlv = absolute.ends_with(kEnding);
  if (endsInFlv) absolute.resize(absolute.size() - kEnding.size());

  std::string path;
  path.reserve(absolute.size() + 1);
  for (const char c : absolute) {
    if (c == '/') {
      path += '\\';
    } else if (isPlain(c)) {
      path += c;
    } else {
      appendEscaped(path, c);
    }
  }
  if (!endsInFlv) path += '%';
  return path;
}

std::string toNativePath(std::string_view name) {
  if (name.ends_with(kForeignEnding)) name.remove_suffix(kForeignEnding.size());
  std::string native;
  native.reserve(name.size());
  for (std::size_t i = 0; i < name.size(); ++i) {
    const bool escaped =
        name[i] == '%' && name.size() - i > 2 && hexValue(name[i + 1]) >= 0 && hexValue(name[i + 2]) >= 0;
    if (escaped) {
      native += static_cast<char>(hexValue(name[i + 1]) << 4 | hexValue(name[i + 2]));
      i += 2;
    } else {
      native += name[i] == '\\' ? '/' : name[i];
    }
  }
  return native;
}

}  // namespace orv::host
