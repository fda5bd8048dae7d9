#include "platform/WideChar.h"

#include <cwchar>
#include <cwctype>

namespace orv::platform {

bool isWideSpace(char16_t unit) {
  return std::iswspace(unit) != 0;
}

char16_t toWideLower(char16_t unit) {
  const std::wint_t lower = std::towlower(unit);
  return lower <= 0xFFFF ? static_cast<char16_t>(lower) : unit;
}

i32 readWideFrom(std::FILE* stream) {
  const std::wint_t character = std::fgetwc(stream);
  return character == WEOF ? -1 : static_cast<i32>(character);
}

}  // namespace orv::platform
