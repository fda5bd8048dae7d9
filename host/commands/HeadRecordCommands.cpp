// The subcommands `meta` and `contexts`: what stands at a file's head, and how a server gets it.

#include <fmt/format.h>

#include "host/commands/Commands.h"
#include "host/flv/AmfJson.h"
#include "host/flv/FlvNames.h"
#include "host/module/FileSummary.h"
#include "host/text/Console.h"
#include "server/KTCSerializer.h"

namespace orv::host {

namespace {

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

// Begins the document and the list that is its first member.
void beginDocument(const std::string& file, const char* list, JsonWriter& out) {
  out.beginObject();
  out.textMember("file", file);
  out.key(list);
  out.beginArray();
}

void endDocument(JsonWriter& out) {
  out.end();
  out.finish();
}

// Null if the file has no contexts.
void writeAllContexts(const std::vector<u8>& blob, JsonWriter& out) {
  if (blob.empty()) return out.value(nullptr);
  out.beginObject();
  out.member("size", blob.size());
  out.key("value");
  writeAmfValue(blob, out);
  out.end();
}

// Begins the record's object, which the caller ends.
void beginRecord(u32 trackId, const Tag& tag, JsonWriter& out) {
  out.beginObject();
  out.member("record", headRecordName(trackId));
  out.member("trackID", trackId);
  out.member("messageType", tag.type);
  out.member("time", timeJson(tag.time));
  out.member("size", tag.size);
  writePayload(tag, out);
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
  if (options.raw) {
    forEachContext(contexts, printRaw);
  } else {
    JsonWriter out(print);
    beginDocument(options.file, "records", out);
    forEachContext(contexts, [&](u32 trackId, const Tag& tag) {
      if (trackId == kTrackControl) return;
      beginRecord(trackId, tag, out);
      out.end();
    });
    out.end();
    endDocument(out);
  }
  flushOutput();
  session.reportStats();
  return ExitCode::good;
}

ExitCode runContexts(const ContextsOptions& options) {
  Session session(options.common);
  const Stream stream = session.open(options.file);
  JsonWriter out(print);
  beginDocument(options.file, "getMediaContexts", out);
  stream.headRecords([&](const HeadRecord& record) {
    beginRecord(record.trackId, record.tag, out);
    out.member("position", record.position);
    out.member("contextType", record.contextType);
    out.end();
  });
  out.end();
  out.key("getAllMediaContexts");
  writeAllContexts(stream.allContexts(), out);
  endDocument(out);
  flushOutput();
  session.reportStats();
  return ExitCode::good;
}

}  // namespace orv::host
