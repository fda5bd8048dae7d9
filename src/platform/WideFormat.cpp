#include "platform/WideFormat.h"

#include <algorithm>
#include <cstdio>
#include <string_view>
#include <vector>

#include "platform/Utf8.h"

namespace orv::platform {

namespace {

constexpr i32 kMaxField = 65536;
constexpr i32 kNoPrecision = -1;

enum class Size : u8 { kPlain, kChar, kShort, kLong, kInt64, kLongDouble, kWide };

// One parsed conversion.
struct Conversion {
  char flags[6] = {};  // As the C library takes them, each once.
  bool left = false;
  i32 width = 0;
  i32 precision = kNoPrecision;
  Size size = Size::kPlain;
  char letter = 0;
};

// Counts all that is printed and keeps what fits.
class Output {
 public:
  Output(char16_t* out, std::size_t size) : out_(out), room_(size ? size - 1 : 0), terminated_(size != 0) {}

  void put(char16_t unit) {
    if (length_ < room_) out_[length_] = unit;
    ++length_;
  }
  void pad(std::size_t count) {
    for (; count > 0; --count) put(u' ');
  }
  i64 finish() {
    if (terminated_) out_[std::min(length_, room_)] = 0;
    return static_cast<i64>(length_);
  }

 private:
  char16_t* out_;
  std::size_t room_;
  bool terminated_;
  std::size_t length_ = 0;
};

template <class Sink>
void decodeEach(std::string_view text, Sink sink) {
  while (!text.empty()) {
    char16_t unit = static_cast<u8>(text.front());
    const std::size_t used = std::max<std::size_t>(decodeUtf8(text.data(), text.size(), &unit), 1);
    sink(unit);
    text.remove_prefix(used);
  }
}

// The text up to its NUL, and never beyond `precision` characters.
template <class Char>
std::basic_string_view<Char> bounded(const Char* text, i32 precision) {
  if (precision == kNoPrecision) return text;
  std::size_t length = 0;
  while (length < static_cast<std::size_t>(precision) && text[length]) ++length;
  return {text, length};
}

class Formatter {
 public:
  Formatter(Output& output, const char16_t* format, std::va_list arguments) : output_(output), at_(format) {
    va_copy(arguments_, arguments);
  }
  ~Formatter() { va_end(arguments_); }
  Formatter(const Formatter&) = delete;
  Formatter& operator=(const Formatter&) = delete;

  bool run() {
    while (*at_) {
      if (*at_ != u'%') {
        output_.put(*at_++);
        continue;
      }
      ++at_;
      Conversion conversion;
      if (!parse(&conversion) || !print(conversion)) return false;
    }
    return true;
  }

 private:
  bool parse(Conversion* conversion) {
    parseFlags(conversion);
    if (!parseWidth(conversion) || !parsePrecision(conversion)) return false;
    conversion->size = parseSize();
    if (*at_ == 0 || *at_ > 0x7F) return false;
    conversion->letter = static_cast<char>(*at_++);
    return true;
  }

  void parseFlags(Conversion* conversion) {
    std::size_t count = 0;
    for (; *at_ && std::u16string_view(u"-+ #0").find(*at_) != std::u16string_view::npos; ++at_) {
      const char flag = static_cast<char>(*at_);
      if (std::string_view(conversion->flags, count).find(flag) == std::string_view::npos)
        conversion->flags[count++] = flag;
      if (flag == '-') conversion->left = true;
    }
  }

  bool parseWidth(Conversion* conversion) {
    i32 width = 0;
    if (!parseNumber(&width)) return false;
    conversion->left = conversion->left || width < 0;
    conversion->width = width;
    return true;
  }

  bool parsePrecision(Conversion* conversion) {
    if (*at_ != u'.') return true;
    ++at_;
    i32 precision = 0;
    if (!parseNumber(&precision)) return false;
    conversion->precision = std::max(precision, kNoPrecision);
    return true;
  }

  // Digits, a star that takes an argument, or nothing, which leaves 0.
  bool parseNumber(i32* number) {
    if (*at_ == u'*') {
      ++at_;
      *number = va_arg(arguments_, int);
      return *number >= -kMaxField && *number <= kMaxField;
    }
    for (; *at_ >= u'0' && *at_ <= u'9'; ++at_) {
      *number = *number * 10 + (*at_ - u'0');
      if (*number > kMaxField) return false;
    }
    return true;
  }

  bool skip(std::u16string_view word) {
    for (std::size_t i = 0; i < word.size(); ++i) {
      if (at_[i] != word[i]) return false;
    }
    at_ += word.size();
    return true;
  }

  Size parseSize() {
    if (skip(u"hh")) return Size::kChar;
    if (skip(u"h")) return Size::kShort;
    if (skip(u"ll") || skip(u"I64") || skip(u"j") || skip(u"z") || skip(u"t")) return Size::kInt64;
    if (skip(u"l") || skip(u"I32")) return Size::kLong;
    if (skip(u"I")) return Size::kInt64;
    if (skip(u"L")) return Size::kLongDouble;
    return skip(u"w") ? Size::kWide : Size::kPlain;
  }

  bool print(const Conversion& conversion) {
    switch (conversion.letter) {
      case '%':
        output_.put(u'%');
        return true;
      case 'c':
      case 'C':
        printCharacter(conversion);
        return true;
      case 's':
      case 'S':
        printText(conversion);
        return true;
      case 'd':
      case 'i':
        printNumber(conversion, "ll", signedArgument(conversion.size));
        return true;
      case 'u':
      case 'o':
      case 'x':
      case 'X':
        printNumber(conversion, "ll", unsignedArgument(conversion.size));
        return true;
      case 'p':
        printNumber(conversion, "", va_arg(arguments_, void*));
        return true;
      default:
        return printFloating(conversion);
    }
  }

  i64 signedArgument(Size size) {
    if (size == Size::kInt64) return va_arg(arguments_, i64);
    const int value = va_arg(arguments_, int);
    if (size == Size::kChar) return static_cast<i8>(value);
    return size == Size::kShort ? static_cast<i16>(value) : value;
  }

  u64 unsignedArgument(Size size) {
    if (size == Size::kInt64) return va_arg(arguments_, u64);
    const u32 value = va_arg(arguments_, u32);
    if (size == Size::kChar) return static_cast<u8>(value);
    return size == Size::kShort ? static_cast<u16>(value) : value;
  }

  bool printFloating(const Conversion& conversion) {
    if (std::string_view("eEfFgGaA").find(conversion.letter) == std::string_view::npos) return false;
    if (conversion.size == Size::kLongDouble)
      printNumber(conversion, "L", va_arg(arguments_, long double));
    else
      printNumber(conversion, "", va_arg(arguments_, double));
    return true;
  }

  // The C library does the whole field, padding included.
  template <class Number>
  void printNumber(const Conversion& conversion, const char* size, Number number) {
    char pattern[16];
    const bool precise = conversion.letter != 'p';
    std::snprintf(pattern, sizeof pattern, "%%%s*%s%s%c", conversion.flags, precise ? ".*" : "", size,
                  conversion.letter);
    const auto field = [&](char* out, std::size_t room) {
      const int length =
          precise ? std::snprintf(out, room, pattern, conversion.width, conversion.precision, number)
                  : std::snprintf(out, room, pattern, conversion.width, number);
      return static_cast<std::size_t>(std::max(length, 0));
    };
    char small[512];
    const std::size_t length = field(small, sizeof small);
    if (length < sizeof small) return putDecoded({small, length});
    std::vector<char> large(length + 1);
    field(large.data(), large.size());
    putDecoded({large.data(), length});
  }

  bool isWide(const Conversion& conversion) const {
    if (conversion.size == Size::kShort) return false;
    if (conversion.size == Size::kLong || conversion.size == Size::kWide) return true;
    return conversion.letter == 's' || conversion.letter == 'c';
  }

  void printCharacter(const Conversion& conversion) {
    const int value = va_arg(arguments_, int);
    const char16_t unit = isWide(conversion) ? static_cast<char16_t>(value) : static_cast<u8>(value);
    padded(conversion, 1, [&] { output_.put(unit); });
  }

  void printText(const Conversion& conversion) {
    if (isWide(conversion)) {
      const char16_t* const text = va_arg(arguments_, const char16_t*);
      const auto units = bounded(text ? text : u"(null)", conversion.precision);
      padded(conversion, units.size(), [&] {
        for (const char16_t unit : units) output_.put(unit);
      });
    } else {
      const char* const text = va_arg(arguments_, const char*);
      const auto bytes = bounded(text ? text : "(null)", conversion.precision);
      std::size_t units = 0;
      decodeEach(bytes, [&](char16_t) { ++units; });
      padded(conversion, units, [&] { putDecoded(bytes); });
    }
  }

  void putDecoded(std::string_view bytes) {
    decodeEach(bytes, [&](char16_t unit) { output_.put(unit); });
  }

  template <class Body>
  void padded(const Conversion& conversion, std::size_t units, Body body) {
    const auto width = static_cast<std::size_t>(conversion.width < 0 ? -conversion.width : conversion.width);
    const std::size_t blanks = width > units ? width - units : 0;
    if (!conversion.left) output_.pad(blanks);
    body();
    if (conversion.left) output_.pad(blanks);
  }

  Output& output_;
  const char16_t* at_;
  std::va_list arguments_;
};

}  // namespace

i64 formatWide(char16_t* out, std::size_t size, const char16_t* format, std::va_list arguments) {
  Output output(out, size);
  const bool good = format && Formatter(output, format, arguments).run();
  const i64 length = output.finish();
  return good ? length : -1;
}

}  // namespace orv::platform
