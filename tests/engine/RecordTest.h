// What the tests of recording share: one script of what the host and the mirror are asked for, in order, and
// metadata as publishers send it.

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

// AMF values and members.
namespace amf {

inline Bytes raw(const std::string& text) {
  return Bytes(text.begin(), text.end());
}
inline Bytes key(const std::string& text) {
  return Bytes{static_cast<u8>(text.size() >> 8), static_cast<u8>(text.size())} + raw(text);
}
inline Bytes ieee(double value) {
  u64 bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  Bytes out(8);
  for (u8& byte : out) byte = static_cast<u8>(bits >> 56), bits <<= 8;
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
  return Bytes{static_cast<u8>(value.size() * 2 + 1)} + raw(value);
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

class RecordTest : public EngineTest {
 protected:
  RecordTest() {
    host.beforeCall = [this](const Call& call) { note(lineOf(call)); };
  }

  Stream openRecord(IBackupConn* backup = nullptr) {
    return Stream(adaptor(), kName, Stream::record, backup);
  }
  const Bytes bytes() { return host.file(kFile).image.bytes(); }

  // The calls since the last time, with commas between; those of the mirror with "m:" in front.
  std::string script() { return std::exchange(script_, {}); }

  KTPtr<MirrorConn> mirror{new MirrorConn([this](const std::string& line) { note("m:" + line); })};
  const std::string& mirrorName() { return name_; }

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
  std::string name_ = kFile;
};

}  // namespace orv::test
