#include "util/KTText.h"

#include <algorithm>
#include <cctype>

#include "platform/WideChar.h"
#include "util/KTString.h"
#include "util/KTWideString.h"

namespace orv::util::hidden {

namespace {

bool isSpace(char character) {
  return std::isspace(static_cast<u8>(character)) != 0;
}

bool isSpace(char16_t character) {
  return orv::platform::isWideSpace(character);
}

char toLower(char character) {
  return static_cast<char>(std::tolower(static_cast<u8>(character)));
}

char16_t toLower(char16_t character) {
  return orv::platform::toWideLower(character);
}

template <class View>
bool equalNoCase(View a, View b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](auto x, auto y) { return x == y || toLower(x) == toLower(y); });
}

// No text is longer than an i32 holds.
i32 indexOf(std::size_t position) {
  return position == std::string_view::npos ? -1 : static_cast<i32>(position);
}

}  // namespace

template <class Text, class Char>
KTText<Text, Char>::KTText(const Char* text) : text_(KTStringPool::create(text)) {}

template <class Text, class Char>
KTText<Text, Char>::KTText(const Char* text, i64 length) : text_(KTStringPool::create(text, length)) {}

template <class Text, class Char>
KTText<Text, Char>::KTText(Char character) : text_(KTStringPool::create(&character, 1)) {}

template <class Text, class Char>
KTText<Text, Char>::KTText(const KTText& other)
    : text_(KTStringPool::create<Char>(other.text_, other.length())) {}

template <class Text, class Char>
KTText<Text, Char>::~KTText() {
  KTStringPool::release(text_);
}

template <class Text, class Char>
KTText<Text, Char>& KTText<Text, Char>::operator=(const KTText& other) {
  if (this != &other) assign(other.text_, other.length());
  return *this;
}

template <class Text, class Char>
KTText<Text, Char>& KTText<Text, Char>::operator=(KTText&& other) noexcept {
  std::swap(text_, other.text_);
  return *this;
}

template <class Text, class Char>
Text& KTText<Text, Char>::assign(const Char* text, i64 length) {
  text_ = KTStringPool::assign(text_, text, length);
  return static_cast<Text&>(*this);
}

template <class Text, class Char>
Text& KTText<Text, Char>::append(const Char* text, i64 length) {
  text_ = KTStringPool::append(text_, text, length);
  return static_cast<Text&>(*this);
}

template <class Text, class Char>
Text KTText<Text, Char>::joined(View first, View second) {
  Text result;
  result.text_ = KTStringPool::join(first, second);
  return result;
}

template <class Text, class Char>
i32 KTText<Text, Char>::find(Char character) const {
  return indexOf(view().find(character));
}

template <class Text, class Char>
i32 KTText<Text, Char>::find(const Char* text) const {
  return indexOf(view().find(viewOf(text)));
}

template <class Text, class Char>
i32 KTText<Text, Char>::rfind(Char character) const {
  return indexOf(view().rfind(character));
}

template <class Text, class Char>
i32 KTText<Text, Char>::rfind(const Char* text) const {
  const View wanted = viewOf(text);
  return wanted.empty() ? 0 : indexOf(view().rfind(wanted));
}

template <class Text, class Char>
Text KTText<Text, Char>::substring(i32 start, i32 count) const {
  const i32 from = std::clamp(start, 0, length());
  const i32 rest = length() - from;
  return Text(text_ + from, count < 0 ? rest : std::min(count, rest));
}

template <class Text, class Char>
Text& KTText<Text, Char>::trim() {
  const View all = view();
  const auto isText = [](Char character) { return !isSpace(character); };
  const auto first = std::find_if(all.begin(), all.end(), isText);
  const auto last = std::find_if(all.rbegin(), std::make_reverse_iterator(first), isText).base();
  return assign(text_ + (first - all.begin()), last - first);
}

template <class Text, class Char>
i32 KTText<Text, Char>::compareViews(View a, View b) {
  const int order = a.compare(b);
  return order < 0 ? -1 : order > 0;
}

template <class Text, class Char>
bool KTText<Text, Char>::equalsNoCase(const Char* text) const {
  return text_ == text || equalNoCase(viewOf(text_), viewOf(text));
}

// Interning makes one block for each text: two pooled blocks differ in their texts.
template <class Text, class Char>
bool KTText<Text, Char>::equals(const KTText& other) const {
  if (text_ == other.text_) return true;
  const bool bothPooled = KTStringPool::kind(text_) == KTStringPool::kPooled &&
                          KTStringPool::kind(other.text_) == KTStringPool::kPooled;
  return !bothPooled && view() == other.view();
}

template class KTText<KTString, char>;
template class KTText<KTWideString, char16_t>;

}  // namespace orv::util::hidden
