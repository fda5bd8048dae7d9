#include "util/KTWideString.h"

#include <memory>
#include <string>

#include "platform/CodePage.h"
#include "platform/Utf8.h"
#include "platform/WideFormat.h"

namespace {

// Room to convert up to 1,024 characters on the stack, and more on the heap.
template <class Char, std::size_t kUnitsPerCharacter>
class WorkBuffer {
 public:
  explicit WorkBuffer(std::size_t characters) {
    if (characters > kOnStack) large_.reset(new Char[characters * kUnitsPerCharacter]);
  }
  Char* data() { return large_ ? large_.get() : small_; }

 private:
  static constexpr std::size_t kOnStack = 1024;
  Char small_[kOnStack * kUnitsPerCharacter];
  std::unique_ptr<Char[]> large_;
};

template <class Number>
KTWideString printed(const char16_t* pattern, Number value) {
  KTWideString text;
  text.format(pattern, value);
  return text;
}

// Swaps the case of a letter for texts directly behind a percent sign; "%%" is a pair of its own.
std::u16string swapTextLetters(const char16_t* pattern) {
  std::u16string swapped(pattern);
  for (std::size_t i = swapped.find(u'%'); i < swapped.size(); i = swapped.find(u'%', i + 2)) {
    char16_t& letter = swapped[i + 1];  // The NUL, at the end.
    if (letter == u's' || letter == u'S' || letter == u'c' || letter == u'C') letter ^= 0x20;
  }
  return swapped;
}

// A first attempt on the stack serves nearly every text; what has more units than the limit is given up.
constexpr std::size_t kFirstSize = 2048;
constexpr i64 kMaxFormatted = 65535;

}  // namespace

KTWideString KTWideString::fromNumber(i32 value) {
  return printed(u"%d", value);
}

KTWideString KTWideString::fromNumber(u32 value) {
  return printed(u"%u", value);
}

KTWideString KTWideString::fromNumber(i64 value) {
  return printed(u"%lld", value);
}

KTWideString KTWideString::fromNumber(u64 value) {
  return printed(u"%llu", value);
}

KTWideString KTWideString::fromNumber(const void* value) {
  return printed(u"%p", value);
}

KTWideString KTWideString::fromNumber(double value) {
  return printed(u"%f", value);
}

KTWideString KTWideString::fromAnsi(const char* text) {
  std::u16string wide;
  for (; text && *text; ++text) wide += orv::platform::fromCodePage(static_cast<u8>(*text));
  return {wide.data(), static_cast<i64>(wide.size())};
}

i32 KTWideString::toInt() const {
  return toNarrow(*this).toInt();
}

i64 KTWideString::toInt64() const {
  return toNarrow(*this).toInt64();
}

double KTWideString::toDouble() const {
  return toNarrow(*this).toDouble();
}

KTWideString& KTWideString::format(const char16_t* pattern, ...) {
  std::va_list arguments;
  va_start(arguments, pattern);
  formatList(pattern, arguments);
  va_end(arguments);
  return *this;
}

KTWideString& KTWideString::formatList(const char16_t* pattern, std::va_list arguments) {
  if (!pattern) return assign(nullptr);
  const std::u16string swapped = swapTextLetters(pattern);
  char16_t first[kFirstSize];
  const i64 length = orv::platform::formatWide(first, kFirstSize, swapped.c_str(), arguments);
  if (length < 0 || length > kMaxFormatted) return assign(nullptr);
  if (length < static_cast<i64>(kFirstSize)) return assign(first, length);
  std::u16string whole(static_cast<std::size_t>(length), u'\0');
  orv::platform::formatWide(whole.data(), whole.size() + 1, swapped.c_str(), arguments);
  return assign(whole.data(), length);
}

KTString toNarrow(const KTWideString& wide) {
  WorkBuffer<char, orv::platform::kMaxUtf8Bytes> buffer(wide.view().size());
  char* out = buffer.data();
  for (const char16_t unit : wide.view()) out += orv::platform::encodeUtf8(unit, out);
  return {buffer.data(), out - buffer.data()};
}

KTWideString toWide(const KTString& narrow) {
  std::string_view rest = narrow.view();
  WorkBuffer<char16_t, 1> buffer(rest.size());
  char16_t* out = buffer.data();
  while (!rest.empty()) {
    const std::size_t used = orv::platform::decodeUtf8(rest.data(), rest.size(), out);
    if (used == 0) return {};
    rest.remove_prefix(used);
    ++out;
  }
  return {buffer.data(), out - buffer.data()};
}
