#include "util/KTStreamUtil.h"

#include <string_view>

#include "platform/Utf8.h"
#include "platform/WideChar.h"

namespace orv::util::streams {

namespace {

constexpr std::string_view kBom = "\xEF\xBB\xBF";

// Puts the last `count` bytes of `bytes` back; a stream without positions takes them one by one.
void goBack(std::FILE* stream, std::string_view bytes, std::size_t count) {
  if (count == 0 || seek(stream, -static_cast<i64>(count), SEEK_CUR) == 0) return;
  for (; count > 0; --count, bytes.remove_suffix(1)) streams::ungetc(static_cast<u8>(bytes.back()), stream);
}

i32 readUtf8(std::FILE* stream) {
  const int lead = streams::fgetc(stream);
  if (lead == EOF) return -1;
  char bytes[orv::platform::kMaxUtf8Bytes] = {static_cast<char>(lead)};
  const std::size_t length = orv::platform::utf8Length(static_cast<u8>(lead));
  const std::size_t got = length > 1 ? 1 + streams::fread(bytes + 1, 1, length - 1, stream) : 1;
  char16_t unit = 0;
  if (orv::platform::decodeUtf8(bytes, got, &unit) > 0) return unit;
  goBack(stream, {bytes, got}, got - 1);
  return lead;
}

}  // namespace

bool feof(std::FILE* stream) {
  return !stream || std::feof(stream);
}

int fgetc(std::FILE* stream) {
  return stream ? std::fgetc(stream) : EOF;
}

int fputc(int character, std::FILE* stream) {
  return stream ? std::fputc(character, stream) : EOF;
}

int ungetc(int character, std::FILE* stream) {
  return stream ? std::ungetc(character, stream) : EOF;
}

std::size_t fread(void* data, std::size_t size, std::size_t count, std::FILE* stream) {
  return stream ? std::fread(data, size, count, stream) : 0;
}

std::size_t fwrite(const void* data, std::size_t size, std::size_t count, std::FILE* stream) {
  return stream ? std::fwrite(data, size, count, stream) : 0;
}

int fflush(std::FILE* stream) {
  return stream ? std::fflush(stream) : EOF;
}

i64 tell(std::FILE* stream) {
  return stream ? ::ftello(stream) : -1;
}

int seek(std::FILE* stream, i64 offset, int whence) {
  return stream ? ::fseeko(stream, offset, whence) : -1;
}

i32 readWideChar(std::FILE* stream, bool utf8) {
  if (!stream) return -1;
  return utf8 ? readUtf8(stream) : orv::platform::readWideFrom(stream);
}

void skipBom(std::FILE* stream) {
  char bytes[kBom.size()];
  const std::size_t got = streams::fread(bytes, 1, sizeof bytes, stream);
  if (std::string_view(bytes, got) == kBom) return;
  if (seek(stream, 0, SEEK_SET) != 0) goBack(stream, {bytes, got}, got);
}

void skipBom(const char*& buffer, std::size_t& size) {
  if (!buffer || !std::string_view(buffer, size).starts_with(kBom)) return;
  buffer += kBom.size();
  size -= kBom.size();
}

}  // namespace orv::util::streams
