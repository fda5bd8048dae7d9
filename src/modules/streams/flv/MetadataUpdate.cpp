#include "modules/streams/flv/MetadataUpdate.h"

#include "modules/streams/flv/HeadRecords.h"
#include "server/AmfMarkers.h"
#include "server/FLVTag.h"
#include "server/KTCommand.h"
#include "server/KTDataArray.h"

namespace orv::flv {
namespace {

// False if the key is none of ours or its value holds already.
bool updateValue(const KTString& key, bool amf3, u32 duration, const RecordedCodecs& codecs, KTData* value) {
  if (key.equalsNoCase("duration")) {
    constexpr double kMillisecondsPerSecond = 1000.0;
    *value = KTData::ofNumber(duration / kMillisecondsPerSecond);
    if (amf3) value->setSubtype(amf3::kDouble);
    return true;
  }
  if (key.equalsNoCase("videocodecid") && value->toInt() == 0) {
    *value = KTData::ofNumber(codecs.videoCodec());
    return true;
  }
  if (key.equalsNoCase("audiocodecid") && value->toInt() == 0) {
    *value = KTData::ofNumber(codecs.audioCodec());
    return true;
  }
  if (key.equalsNoCase("canSeekToEnd")) {
    value->setBool(codecs.lastVideoKey());
    return true;
  }
  return false;
}

}  // namespace

KTMessagePtr updatedMetadata(const KTMessagePtr& old, u32 duration, const RecordedCodecs& codecs) {
  KTMessagePtr none(nullptr);
  const KTCommand command(SingleMessagePtr(old.get()), false);
  const KTData& values = command.arg(0);
  const KTDataArray* const entries = values.asArray();
  if (!entries) return none;

  const bool amf3 = old->type() == kTypeDataAmf3;
  const bool asArray = values.type() == KTData::EcmaArray || values.type() == KTData::StrictArray;
  KTCommand writer;
  if (amf3) writer.setEncoding(3);
  writer.setName(kMetaDataName.data());
  writer.setTransactionId(KTData::ofNumber(0));
  bool changed = false;
  for (u32 i = 0; i < entries->size(); ++i) {
    const KTString& key = entries->keyAt(i);
    KTData value = entries->valueAt(i);
    changed |= updateValue(key, amf3, duration, codecs, &value);
    if (asArray) {
      writer.addArrayProperty(key, value);
    } else {
      writer.addObjectProperty(key, value);
    }
  }
  if (!changed) return none;
  const KTMessagePtr made = writer.toDataMessage();
  return writer.failed() ? none : made;  // Something may be missing.
}

}  // namespace orv::flv
