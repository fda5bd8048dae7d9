// What the tests of recording share: one script of what the host and the mirror are asked for, in order,
// metadata as publishers send it, and all that a player finds.

#pragma once

#include "EngineTest.h"
#include "support/AmfText.h"
#include "support/MirrorConn.h"

namespace orv::test {

inline constexpr u8 kData = flv::kTypeDataAmf0;
inline constexpr u8 kData3 = flv::kTypeDataAmf3;
inline constexpr u32 kFirstTag = flv::kFirstTagPosition;

inline Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

// A whole recording, and a part of one.
inline Bytes tagBytes(const std::vector<Message>& tags) {
  Bytes out;
  for (const Message& tag : tags) out = out + tagBytes(static_cast<u8>(tag.type), tag.time, tag.data);
  return out;
}
inline Bytes fileBytes(u8 flags, const std::vector<Message>& tags) {
  return Bytes{'F', 'L', 'V', 1, flags, 0, 0, 0, 9, 0, 0, 0, 0} + tagBytes(tags);
}

// A data message's payload, its value written down as bytesOf() reads it.
inline Bytes onMetaData(const std::string& value) {
  return bytesOf("02 <onMetaData> " + value);
}
inline Bytes durationMetadata(double seconds) {
  return onMetaData("03 <duration> 00 =" + std::to_string(seconds) + " 000009");
}

// All tags that loads deliver, from the first segment to the last.
inline std::vector<Message> tagsOf(Stream& stream) {
  return unpack(loadAll(stream));
}

class RecordTest : public EngineTest {
 protected:
  RecordTest() {
    host.beforeCall = [this](const Call& call) { note(lineOf(call)); };
  }

  Stream openRecord(IBackupConn* backup = nullptr) {
    return Stream(adaptor(), kName, Stream::record, backup);
  }
  static void stage(Stream& stream, const std::vector<Message>& messages) {
    for (const auto& [type, time, data] : messages) EXPECT_TRUE(stream.stage(type, time, data));
  }
  Bytes bytes() { return host.file(kFile).image.bytes(); }

  // The calls since the last time, with commas between; those of the mirror with "m:" in front.
  std::string script() { return std::exchange(script_, {}); }

  KTPtr<MirrorConn> mirror{new MirrorConn([this](const std::string& line) { note("m:" + line); })};

 private:
  void note(const std::string& line) { script_ += (script_.empty() ? "" : ", ") + line; }

  static std::string lineOf(const Call& call) {
    static const char* const kNames[] = {"open",  "close", "read",   "write",
                                         "fstat", "stat",  "unlink", "mkdir"};
    std::string line = kNames[static_cast<int>(call.op)];
    const auto add = [&](char mark, i64 number) { line += mark + std::to_string(number); };
    if (call.op == Op::open) add(' ', call.flags), add(' ', call.mode);
    if (call.op == Op::read || call.op == Op::write) add(' ', call.position);
    if (call.op == Op::write) add('+', call.size);
    if (call.op == Op::mkdir) line += ' ' + call.path;
    return line;
  }

  std::string script_;
};

}  // namespace orv::test
