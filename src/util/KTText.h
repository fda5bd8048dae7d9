// What KTString and KTWideString have in common. `Text` is the class itself, `Char` its character.
//
// A text is exactly one pointer, never null, to NUL-terminated characters (util/KTStringPool.h). It may hold
// characters of value 0. Lengths, indices and counts are in characters; -1 stands for "not found" or "all the
// rest". A text of more than 16,777,215 characters throws KTOutOfMemory, exhausted memory std::bad_alloc, and
// the text stays as it was; nothing else fails. Two threads may share a text only to read it. Appending moves
// the text every 32 characters: put a very long text together elsewhere.
//
// Each library of a process has its own pool: compare a text from another library by its c_str().

#pragma once

#include <string_view>

#include "util/KTStringPool.h"

namespace orv::util::hidden {

template <class Text, class Char>
class KTText {
 public:
  using View = std::basic_string_view<Char>;

  KTText() noexcept : text_(KTStringPool::empty<Char>()) {}
  KTText(const Char* text);
  // A length of -1 reaches up to the NUL; a null text is empty.
  KTText(const Char* text, i64 length);
  explicit KTText(Char character);
  KTText(const KTText& other);
  KTText(KTText&& other) noexcept : text_(other.text_) { other.text_ = KTStringPool::empty<Char>(); }
  ~KTText();

  KTText& operator=(const KTText& other);
  KTText& operator=(KTText&& other) noexcept;
  Text& operator=(const Char* text) { return assign(text); }
  Text& assign(const Char* text, i64 length = -1);

  Text& operator+=(const Text& other) { return append(other.c_str(), other.length()); }
  Text& operator+=(const Char* text) { return append(text); }
  Text& operator+=(Char character) { return append(&character, 1); }
  Text& append(const Char* text, i64 length = -1);

  friend Text operator+(const Text& a, const Text& b) { return joined(a.view(), b.view()); }
  friend Text operator+(const Text& a, const Char* b) { return joined(a.view(), viewOf(b)); }
  friend Text operator+(const Char* a, const Text& b) { return joined(viewOf(a), b.view()); }
  friend Text operator+(const Text& a, Char b) { return joined(a.view(), View(&b, 1)); }

  // Valid until the text is next written to.
  const Char* c_str() const { return text_; }
  View view() const { return View(text_, static_cast<std::size_t>(length())); }
  i32 length() const { return KTStringPool::length(text_); }
  bool empty() const { return length() == 0; }
  // Returns 0 for an index outside the text.
  Char operator[](i32 index) const { return index >= 0 && index < length() ? text_[index] : Char(0); }

  // Return the index of the first or the last match; -1 if there is none. An empty or null text is found at
  // 0.
  i32 find(Char character) const;
  i32 find(const Char* text) const;
  i32 rfind(Char character) const;
  i32 rfind(const Char* text) const;

  // Returns an empty text if `start` is past the end; a negative start counts as 0.
  Text substring(i32 start, i32 count = -1) const;
  Text left(i32 count) const { return substring(0, count); }
  // Drops white space at both ends of this text.
  Text& trim();

  // Compare by character value. Return -1, 0 or 1.
  i32 compare(const Text& other) const { return compareViews(view(), other.view()); }
  i32 compare(const Char* text) const { return compareViews(view(), viewOf(text)); }
  // Compare both up to the first NUL.
  bool equalsNoCase(const Text& other) const { return equalsNoCase(other.text_); }
  bool equalsNoCase(const Char* text) const;

  friend bool operator==(const Text& a, const Text& b) { return a.equals(b); }
  friend bool operator!=(const Text& a, const Text& b) { return !a.equals(b); }
  friend bool operator==(const Text& a, const Char* b) { return a.view() == viewOf(b); }
  friend bool operator!=(const Text& a, const Char* b) { return a.view() != viewOf(b); }
  friend bool operator<(const Text& a, const Text& b) { return a.view() < b.view(); }

 protected:
  static View viewOf(const Char* text) { return text ? View(text) : View(); }

  Char* text_;

 private:
  static Text joined(View first, View second);
  static i32 compareViews(View a, View b);
  bool equals(const KTText& other) const;
};

}  // namespace orv::util::hidden
