// The codecs that a recording stream is sent: which of them it takes, and what it learns of them.

#pragma once

#include <functional>

#include "platform/Types.h"

namespace orv::flv {

// One message as the host hands it over. Borrows the data.
struct RecordedMessage {
  u8 type;  // The low 8 bits of the host's.
  const u8* data;
  u32 size;
  u32 time;  // Milliseconds.
};

// Lives as long as the stream, across its flushes. Used under the stream's lock.
class RecordedCodecs {
 public:
  // Takes a text that has a place for the stream's path.
  using Warn = std::function<void(const char16_t* format)>;

  explicit RecordedCodecs(bool takesAll) : takesAll_(takesAll) {}

  // Whether the message is recorded. H.264 and AAC may not be; the first one of each is worth a warning.
  bool checkCodec(const RecordedMessage& message, const Warn& warn);
  void note(const RecordedMessage& message);

  // Of the first message with data: a number of the format or a FourCC; 0 while there is none.
  u32 videoCodec() const { return videoCodec_; }
  u32 audioCodec() const { return audioCodec_; }
  bool lastVideoKey() const { return lastVideoKey_; }  // Whether the last video message was a key frame.

 private:
  const bool takesAll_;
  bool warnH264_ = true;  // Until it has been logged.
  bool warnAAC_ = true;
  u32 videoCodec_ = 0;
  u32 audioCodec_ = 0;
  bool lastVideoKey_ = false;
};

}  // namespace orv::flv
