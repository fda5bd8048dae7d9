#include "server/KTCSerializer.h"

#include <span>

#include "server/Message.h"

using orv::amf::Amf0Reader;
using orv::amf::Amf0Writer;

namespace {

// In payloads of these types a byte of no meaning comes before the values.
bool hasLeadingByte(u8 messageType) {
  return messageType >= orv::flv::kTypeDataAmf3 && messageType <= orv::flv::kTypeCommandAmf3;
}

// The payload without that byte.
std::span<const u8> valuesOf(const orv::SingleMessage* message) {
  if (!message) return {};
  const std::span<const u8> payload(message->payload(), message->payloadSize());
  return hasLeadingByte(message->type()) && !payload.empty() ? payload.subspan(1) : payload;
}

}  // namespace

KTCSerializer::KTCSerializer(const orv::SingleMessage* message, bool throwOnError)
    : KTCSerializer(valuesOf(message).data(), static_cast<u32>(valuesOf(message).size()), throwOnError) {}

void KTCSerializer::readValue(KTData& value, bool resetTablesAfter) {
  auto* const reader = std::get_if<Amf0Reader>(&side_);
  if (!reader) return fail();
  reader->read(value);
  if (resetTablesAfter) reader->resetTables();
}

void KTCSerializer::writeValue(const KTData& value, bool resetTablesAfter) {
  auto* const writer = std::get_if<Amf0Writer>(&side_);
  if (!writer) return;
  writer->write(value);
  if (resetTablesAfter) writer->resetTables();
}

void KTCSerializer::resetTables() {
  std::visit([](auto& side) { side.resetTables(); }, side_);
}

bool KTCSerializer::charge(u64 bytes) {
  auto* const reader = std::get_if<Amf0Reader>(&side_);
  return !reader || reader->charge(bytes);
}
