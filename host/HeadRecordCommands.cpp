// The subcommands `meta` and `contexts`: what stands at a file's head, and how a server gets it.

#include <fmt/format.h>

#include "AmfJson.h"
#include "Commands.h"
#include "Console.h"
#include "FileSummary.h"
#include "FlvNames.h"
#include "server/KTCSerializer.h"

namespace orv::host {

namespace {

using Json = nlohmann::ordered_json;

// Calls `visit`(trackID, tag) for each record of the module's serialized contexts: all of the file's, where
// asking for them one by one gives the last of each kind.
template <class Visit>
void forEachContext(const std::vector<u8>& blob, Visit visit) {
  KTCSerializer reader(blob.data(), static_cast<u32>(blob.size()), false);
  KTData root;
  if (!blob.empty()) reader.readValue(root, false);
  const KTDataArray* const records = root.asArray();
  for (u32 i = 0; records && i < records->size(); ++i) {
    const KTDataArray* const record = records->valueAt(i).asArray();
    if (!record) continue;
    const KTBuffer range = record->find("buffer").memoryRange();
    visit(record->find("trackID").toUInt(),
          Tag{static_cast<u8>(record->find("messageType").toUInt()), record->find("time").toUInt(), 0,
              range.data + range.begin, range.end - range.begin});
  }
}

Json recordJson(u32 trackId, const Tag& tag) {
  Json json = {{"record", headRecordName(trackId)},
               {"trackID", trackId},
               {"messageType", tag.type},
               {"time", timeJson(tag.time)},
               {"size", tag.size}};
  json.update(payloadJson(tag));
  return json;
}

void printHexDump(const Tag& tag) {
  constexpr u32 kRow = 16;
  for (u32 at = 0; at < tag.size; at += kRow) {
    const u32 count = std::min(kRow, tag.size - at);
    std::string digits, text;
    for (u32 i = at; i < at + count; ++i) {
      digits += fmt::format("{}{:02x}", i % 8 == 0 && i > at ? "  " : " ", tag.data[i]);
      text += tag.data[i] >= ' ' && tag.data[i] <= '~' ? static_cast<char>(tag.data[i]) : '.';
    }
    print(fmt::format("{:08x} {:<50} {}\n", at, digits, text));
  }
}

void printRaw(u32 trackId, const Tag& tag) {
  if (trackId == kTrackControl) return;
  print(fmt::format("{}, type {}, {} bytes\n", headRecordName(trackId), tag.type, tag.size));
  printHexDump(tag);
}

}  // namespace

ExitCode runMeta(const MetaOptions& options) {
  Session session(options.common);
  const Stream stream = session.open(options.file);
  const std::vector<u8> contexts = stream.allContexts();
  Json records = Json::array();
  forEachContext(contexts, [&](u32 trackId, const Tag& tag) {
    if (options.raw) {
      printRaw(trackId, tag);
    } else if (trackId != kTrackControl) {
      records.push_back(recordJson(trackId, tag));
    }
  });
  if (!options.raw) print(jsonText({{"file", options.file}, {"records", std::move(records)}}));
  flushOutput();
  session.reportStats();
  return ExitCode::good;
}

ExitCode runContexts(const ContextsOptions& options) {
  Session session(options.common);
  const Stream stream = session.open(options.file);
  Json one = Json::array();
  stream.headRecords([&](const HeadRecord& record) {
    Json json = recordJson(record.trackId, record.tag);
    json["position"] = record.position;
    json["contextType"] = record.contextType;
    one.push_back(std::move(json));
  });
  const std::vector<u8> all = stream.allContexts();
  Json allJson = nullptr;
  if (!all.empty()) allJson = {{"size", all.size()}, {"value", valueJson(all)}};
  print(jsonText({{"file", options.file},
                  {"getMediaContexts", std::move(one)},
                  {"getAllMediaContexts", std::move(allJson)}}));
  flushOutput();
  session.reportStats();
  return ExitCode::good;
}

}  // namespace orv::host
