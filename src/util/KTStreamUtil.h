// The run-time library's streams, safe for a null stream: that one is at its end, moves 0 bytes,
// and fails with -1 elsewhere.

#pragma once

#include <cstdio>

#include "platform/Types.h"

namespace orv::util::streams {

bool feof(std::FILE* stream);
int fgetc(std::FILE* stream);
int fputc(int character, std::FILE* stream);
int ungetc(int character, std::FILE* stream);
std::size_t fread(void* data, std::size_t size, std::size_t count, std::FILE* stream);
std::size_t fwrite(const void* data, std::size_t size, std::size_t count, std::FILE* stream);
int fflush(std::FILE* stream);
// 64-bit positions.
i64 tell(std::FILE* stream);
int seek(std::FILE* stream, i64 offset, int whence);

// Returns the next character; -1 at the end. With `utf8` set, reads one sequence of platform/Utf8.h's form; a
// bad one gives its first byte, and the stream goes back to the byte behind it. Otherwise calls fgetwc, which
// makes the stream one of wide text from then on.
i32 readWideChar(std::FILE* stream, bool utf8);

// Skip the byte-order mark of UTF-8; if there is none, the stream goes to its start, and the buffer stays.
void skipBom(std::FILE* stream);
void skipBom(const char*& buffer, std::size_t& size);

}  // namespace orv::util::streams
