#include "server/KTCommand.h"

#include <strings.h>

#include <algorithm>
#include <array>

#include "server/AmfMarkers.h"
#include "util/KTThrowable.h"

using namespace orv;

namespace {

// In the order of their codes, which is that of their letters without regard to case.
constexpr std::array kReservedNames = {
    "",           "@getStats",   "closeStream", "connect",      "createStream", "deleteStream",
    "initStream", "loadSegment", "onMCastJoin", "onStatus",     "pause",        "pauseRaw",
    "play",       "play2",       "publish",     "receiveAudio", "receiveVideo", "seek",
};

bool isCommand(u8 type) {
  return type == flv::kTypeCommandAmf0 || type == flv::kTypeCommandAmf3;
}

bool opensWithByte(u8 type) {
  return type == flv::kTypeCommandAmf3 || type == flv::kTypeDataAmf3;
}

KTDataArrayPtr newProperties() {
  return new KTDataArray(KTDataArray::kUsualReserve);
}

}  // namespace

KTCommand::KTCommand() {
  setResult();
  transactionId_.setNumber(0);
  commandObject_.setNull();
}

KTCommand::KTCommand(const SingleMessagePtr& message, bool throwOnError)
    : KTCSerializer(message.get(), throwOnError) {
  if (message) parse(message->type());
}

KTCommand::KTCommand(u8 type, const u8* data, u32 length, bool throwOnError)
    : KTCSerializer(data, length, throwOnError) {
  if (!opensWithByte(type) || readU8() == 0) parse(type);
}

KTCommand::KTCommand(const KTCommand& other)
    : KTCSerializer(),
      commandCode_(other.commandCode_),
      name_(other.name_),
      transactionId_(other.transactionId_),
      commandObject_(other.commandObject_),
      args_(other.args_) {}

void KTCommand::parse(u8 type) {
  KT_ASSERT(isCommand(type) || flv::isDataType(type));
  if (remaining() > 0) {
    readValue(name_);
    commandCode_ = codeOf(name_);
  }
  if (isCommand(type)) {
    if (remaining() > 0) readValue(transactionId_);
    if (remaining() > 0) readValue(commandObject_);
  } else {
    transactionId_.setNumber(0);
  }
  readArgs();
}

void KTCommand::readArgs() {
  while (remaining() > 0 && charge(2 * sizeof(KTData))) readValue(args_.emplace_back());
}

i32 KTCommand::codeOf(const KTData& name) {
  const char* const text = name.type() == KTData::String ? name.asString() : "";
  const auto before = [](const char* a, const char* b) { return strcasecmp(a, b) < 0; };
  const auto found = std::lower_bound(kReservedNames.begin(), kReservedNames.end(), text, before);
  if (found == kReservedNames.end() || before(text, *found)) return 0;
  return static_cast<i32>(found - kReservedNames.begin());
}

const KTData& KTCommand::arg(u32 index) const {
  static const KTData undefined{};
  return index < args_.size() ? args_[index] : undefined;
}

void KTCommand::addCommandProperty(KeyView key, const KTData& value) {
  if (!KTData::isArray(commandObject_.type())) commandObject_.setArray(newProperties().get(), KTData::Object);
  if (KTDataArray* const properties = commandObject_.asArray()) properties->append(key, value);
}

void KTCommand::addProperty(u8 containerType, KeyView key, const KTData& value) {
  if (args_.empty()) args_.emplace_back().setArray(newProperties().get(), containerType);
  if (KTDataArray* const properties = args_[0].asArray()) properties->append(key, value);
}

void KTCommand::addTextProperty(const char* key, const char* text) {
  addObjectProperty(key, KTData::ofText(text ? text : ""));
}

void KTCommand::setStatus(const char* level, const char* code, const char* description, const char* details) {
  addTextProperty("level", level);
  addTextProperty("code", code);
  if (description && *description) addTextProperty("description", description);
  if (details) addTextProperty("details", details);
}

void KTCommand::serialize() {
  writeValue(name_);
  writeValue(transactionId_);
  writeValue(commandObject_);
  for (const KTData& value : args_) writeValue(value);
}

void KTCommand::serializeData() {
  writeValue(name_);
  for (const KTData& value : args_) writeValue(value);
}

KTMessagePtr KTCommand::toCommandMessage() {
  return toMessage(flv::kTypeCommandAmf0, flv::kTypeCommandAmf3, &KTCommand::serialize);
}

KTMessagePtr KTCommand::toDataMessage() {
  return toMessage(flv::kTypeDataAmf0, flv::kTypeDataAmf3, &KTCommand::serializeData);
}

// The values end softly for want of memory; the byte in front of AMF3 has no value around it that could.
KTMessagePtr KTCommand::toMessage(u8 amf0Type, u8 amf3Type, void (KTCommand::*writeValues)()) try {
  KTMessagePtr message;
  const bool asAmf3 = encoding() == amf::kAmf3Encoding;
  message->setType(asAmf3 ? amf3Type : amf0Type);
  message->setStreamId(0);
  if (asAmf3) writeU8(0);
  (this->*writeValues)();
  return message->append(bytes(), static_cast<u32>(length())) ? message : KTMessagePtr(nullptr);
} catch (const KTOutOfMemory&) {
  giveUp();
  return nullptr;
}
