#include "modules/streams/flv/MediaContextStore.h"

#include <algorithm>

#include "server/KTCSerializer.h"
#include "server/KTData.h"
#include "server/KTDataArray.h"

namespace orv::flv {
namespace {

constexpr u32 kReserve = 10;

KTData toObject(const MediaContext& record) {
  const KTDataArrayPtr array(new KTDataArray(kReserve));
  array->append("messageType", KTData::ofNumber(record.messageType));
  array->append("time", KTData::ofNumber(record.time));
  KTData value;
  value.setMemory(record.buffer);
  array->append("buffer", value);
  value.setInt64(record.position);
  array->append("position", value);
  array->append("trackID", KTData::ofNumber(record.trackID));
  array->append("contextType", KTData::ofNumber(record.contextType));
  value.setArray(array.get(), KTData::Object);
  return value;
}

void takeField(MediaContext& record, const KTString& key, const KTData& value) {
  if (key.equalsNoCase("messageType")) {
    record.messageType = static_cast<u8>(value.toUInt());
  } else if (key.equalsNoCase("time")) {
    record.time = value.toUInt();
  } else if (key.equalsNoCase("buffer")) {
    record.buffer = value.memoryRange();
  } else if (key.equalsNoCase("position")) {
    record.position = value.toInt64();
  } else if (key.equalsNoCase("trackID")) {
    record.trackID = value.toUInt();
  } else if (key.equalsNoCase("contextType")) {
    record.contextType = static_cast<ContextType_t>(value.toUInt());
  }
}

MediaContext fromArray(const KTDataArray& array) {
  MediaContext record;
  for (u32 i = 0; i < array.size(); ++i) takeField(record, array.keyAt(i), array.valueAt(i));
  return record;
}

}  // namespace

const MediaContext* MediaContextTrack::find(ContextType_t contextType, i64 position) const {
  const MediaContext* found = nullptr;
  if (contextType == ContextTypeBefore) {
    const auto record = std::find_if(records.rbegin(), records.rend(),
                                     [=](const MediaContext& r) { return r.position < position; });
    if (record != records.rend()) found = &*record;
  } else if (contextType == ContextTypeAfter) {
    const auto record = std::find_if(records.begin(), records.end(),
                                     [=](const MediaContext& r) { return r.position > position; });
    if (record != records.end()) found = &*record;
  }
  return found && found->contextType == contextType ? found : nullptr;
}

void MediaContextStore::add(const MediaContext& record) {
  auto track = std::find_if(tracks_.begin(), tracks_.end(),
                            [&](const MediaContextTrack& t) { return t.trackID == record.trackID; });
  if (track == tracks_.end()) track = tracks_.insert(tracks_.end(), {record.trackID, {}});
  track->records.push_back(record);
}

bool MediaContextStore::forEach(ContextType_t contextType, i64 position,
                                const boost::function<void(const MediaContext&)>& function) const {
  bool any = false;
  for (const MediaContextTrack& track : tracks_) {
    if (const MediaContext* record = track.find(contextType, position)) {
      function(*record);
      any = true;
    }
  }
  return any;
}

bool MediaContextStore::serialize(KTBuffer& out) const {
  const KTDataArrayPtr root(new KTDataArray(kReserve));
  for (const MediaContextTrack& track : tracks_) {
    for (const MediaContext& record : track.records) root->append("", toObject(record));
  }
  if (tracks_.empty()) return false;

  KTData value;
  value.setArray(root.get(), KTData::Object);
  KTCSerializer writer;
  writer.writeValue(value, false);
  const auto length = static_cast<u32>(writer.length());
  KTBuffer block(length, nullptr);
  block.append(writer.bytes(), length);
  out = block;
  return true;
}

void MediaContextStore::deserialize(const u8* data, u32 size) {
  if (size == 0) return;
  clear();
  KTData root;
  KTCSerializer reader(data, size, false);
  reader.readValue(root, false);
  const KTDataArray* const records = root.asArray();
  if (!records) return;
  u64 bytes = 0;
  for (u32 i = 0; i < records->size(); ++i) {
    const KTDataArray* const record = records->valueAt(i).asArray();
    if (!record) continue;
    const MediaContext context = fromArray(*record);
    bytes += context.buffer.size;
    if (bytes > size) return;  // What `serialize` writes has no references, by which more would come of it.
    add(context);
  }
}

u32 MediaContextStore::byteSize() const {
  u64 bytes = sizeof(MediaContextStore);
  for (const MediaContextTrack& track : tracks_) {
    bytes += sizeof(MediaContextTrack);
    for (const MediaContext& record : track.records) bytes += sizeof(MediaContext) + record.buffer.size;
  }
  return static_cast<u32>(bytes);
}

}  // namespace orv::flv
