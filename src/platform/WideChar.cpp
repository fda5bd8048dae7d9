#include "platform/WideChar.h"

#include <cwctype>

namespace orv::platform {

bool isWideSpace(char16_t unit) {
  return std::iswspace(unit) != 0;
}

char16_t toWideLower(char16_t unit) {
  const std::wint_t lower = std::towlower(unit);
  return lower <= 0xFFFF ? static_cast<char16_t>(lower) : unit;
}

}  // namespace orv::platform
