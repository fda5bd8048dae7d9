// The walk over a span's format, shared by both time classes.

#pragma once

#include "util/KTWideString.h"

namespace orv::util {

// Copies `format`, or the default form when it is null, and calls `print(letter, text)` for the letter behind
// each "%" to append what it stands for.
template <class Print>
KTWideString formatSpan(const char16_t* format, Print print) {
  KTWideString text;
  for (const char16_t* at = format ? format : u"%Dd:%Hh:%Mm:%Ss"; *at; ++at) {
    if (*at != u'%') {
      text += *at;
    } else if (*++at == 0) {
      break;
    } else if (*at == u'%') {
      text += u'%';
    } else {
      print(*at, text);
    }
  }
  return text;
}

}  // namespace orv::util
