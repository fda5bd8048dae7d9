#include "host/flv/MetadataWriter.h"

#include "server/AmfMarkers.h"

namespace orv::host {

namespace {

constexpr const char* kWholeFileKeys[] = {
    "filesize", "keyframes", "lasttimestamp", "lastkeyframetimestamp", "lastkeyframelocation",
    "datasize", "videosize", "audiosize",     "hasKeyframes"};

}  // namespace

bool isWholeFileKey(const KTString& key) {
  for (const char* const known : kWholeFileKeys) {
    if (key.equalsNoCase(known)) return true;
  }
  return false;
}

KTData fixedNumber(double value) {
  KTData number = KTData::ofNumber(value);
  number.setSubtype(amf3::kDouble);
  return number;
}

MetadataWriter::MetadataWriter(u8 messageType, u8 containerType)
    : asArray_(containerType == KTData::EcmaArray || containerType == KTData::StrictArray) {
  writer_.setEncoding(messageType == flv::kTypeDataAmf3 ? 3 : 0);
  writer_.setName(kMetadataName);
}

void MetadataWriter::add(orv::KeyView key, const KTData& value) {
  if (asArray_) {
    writer_.addArrayProperty(key, value);
  } else {
    writer_.addObjectProperty(key, value);
  }
}

std::vector<u8> MetadataWriter::payload() {
  const KTMessagePtr message = writer_.toDataMessage();
  if (!message) return {};
  return {message->payload(), message->payload() + message->payloadSize()};
}

}  // namespace orv::host
