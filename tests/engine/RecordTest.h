// What the tests of recording share: one script of what the host and the mirror are asked for, in order,
// metadata as publishers send it, and all that a player finds.

#pragma once

#include <cstring>

#include "EngineTest.h"
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

// AMF values and members.
namespace amf {

inline Bytes key(const std::string& text) {
  return Bytes{static_cast<u8>(text.size() >> 8), static_cast<u8>(text.size())} +
         Bytes(text.begin(), text.end());
}
inline Bytes ieee(double value) {
  Bytes out(8);
  std::memcpy(out.data(), &value, out.size());
  std::reverse(out.begin(), out.end());
  return out;
}
inline Bytes number(double value) {
  return Bytes{0} + ieee(value);
}
inline Bytes boolean(bool value) {
  return {1, value};
}
inline Bytes text(const std::string& value) {
  return Bytes{2} + key(value);
}
inline Bytes key3(const std::string& value) {
  return Bytes{static_cast<u8>(value.size() * 2 + 1)} + Bytes(value.begin(), value.end());
}

using Members = std::vector<std::pair<const char*, Bytes>>;
// In AMF0: an object, or an array that claims `count` members.
inline Bytes object(const Members& members, Bytes head = {3}) {
  for (const auto& [name, value] : members) head = head + key(name) + value;
  return head + Bytes{0, 0, 9};
}
inline Bytes array(const Members& members, u8 count) {
  return object(members, {8, 0, 0, 0, count});
}
// In AMF3, as one AMF0 value; values are AMF3 ones.
inline Bytes array3(const Members& members, Bytes head = {17, 9, 1}) {
  for (const auto& [name, value] : members) head = head + key3(name) + value;
  return head + Bytes{1};
}

}  // namespace amf

// A data message's payload.
inline Bytes onMetaData(const Bytes& value, const std::string& name = "onMetaData") {
  return amf::text(name) + value;
}
inline Bytes durationMetadata(double seconds) {
  return onMetaData(amf::object({{"duration", amf::number(seconds)}}));
}

// The tags of a session: the metadata, then media, each with bytes of its own.
inline Message sessionTag(u32 i, u32 size) {
  const amf::Members members{{"duration", amf::number(0)}, {"canSeekToEnd", amf::boolean(false)}};
  if (i == 0) return {kData, 0, onMetaData(amf::array(members, 2))};
  const u8 type = i % 3 == 0 ? kAudio : kVideo;
  return {type, 100 * i, payload(type, size, i)};
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
