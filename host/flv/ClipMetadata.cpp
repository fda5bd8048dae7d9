#include "host/flv/ClipMetadata.h"

#include "host/flv/MetadataWriter.h"
#include "util/KTThrowable.h"

namespace orv::host {

namespace {

constexpr char kDuration[] = "duration";
constexpr char kFileSize[] = "filesize";

}  // namespace

std::optional<std::vector<u8>> clipMetadata(const Tag& tag, const ClipFacts& facts) try {
  const KTCommand command(tag.plainType(), tag.data, tag.size, false);
  if (command.failed() || command.argCount() != 1) return std::nullopt;
  const KTDataArray* const old = command.arg(0).asArray();
  if (!old) return std::nullopt;
  MetadataWriter writer(tag.plainType(), static_cast<u8>(command.arg(0).type()));
  writer.add(kDuration, fixedNumber(facts.duration));
  if (facts.fileSize) writer.add(kFileSize, fixedNumber(*facts.fileSize));
  for (u32 i = 0; i < old->size(); ++i) {
    const KTString& key = old->keyAt(i);
    if (!key.equalsNoCase(kDuration) && !isWholeFileKey(key)) writer.add(key, old->valueAt(i));
  }
  std::vector<u8> payload = writer.payload();
  if (payload.empty()) return std::nullopt;
  return payload;
} catch (const KTBreakConnection&) {
  return std::nullopt;
}

}  // namespace orv::host
