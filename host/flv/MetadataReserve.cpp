#include "host/flv/MetadataReserve.h"

#include "host/flv/MetadataWriter.h"
#include "host/text/Console.h"
#include "util/KTThrowable.h"

namespace orv::host {

namespace {

// The module looks for head records in the first 20 tags.
constexpr std::size_t kMostWaiting = 19;
constexpr std::size_t kMostWaitingBytes = 1 << 20;

KTData durationFrom(const KTData& old) {
  return fixedNumber(old.type() == KTData::Number ? old.toDouble() : 0.0);
}

// A codec that is named is left alone; any other becomes the number of a codec, which are all below 16.
KTData codecFrom(const KTData& old) {
  if (old.type() == KTData::Number && old.toInt() != 0) return old;
  return KTData::ofNumber(0);
}

KTData flagFrom(const KTData& old) {
  return KTData::ofBool(old.toBool());
}

constexpr struct {
  const char* key;
  KTData (*valueFrom)(const KTData& old);
} kReserved[] = {{"duration", durationFrom},
                 {"videocodecid", codecFrom},
                 {"audiocodecid", codecFrom},
                 {"canSeekToEnd", flagFrom}};

// Builds the message anew, as the module does.
class Rewriter {
 public:
  Rewriter(u8 messageType, u8 containerType) : writer_(messageType, containerType) {}

  // Nobody keeps true, while the file grows, what an encoder says of a file that it thinks complete.
  void addOld(const KTString& key, const KTData& value) {
    if (isWholeFileKey(key)) return;
    for (std::size_t i = 0; i < std::size(kReserved); ++i) {
      if (!key.equalsNoCase(kReserved[i].key)) continue;
      seen_[i] = true;
      return writer_.add(key, kReserved[i].valueFrom(value));
    }
    writer_.add(key, value);
  }
  void addMissing() {
    for (std::size_t i = 0; i < std::size(kReserved); ++i) {
      if (!seen_[i]) writer_.add(kReserved[i].key, kReserved[i].valueFrom(KTData()));
    }
  }
  std::vector<u8> payload() { return writer_.payload(); }

 private:
  MetadataWriter writer_;
  bool seen_[std::size(kReserved)] = {};
};

std::vector<u8> rewritten(u8 messageType, const KTData& metadata) {
  const KTDataArray& array = *metadata.asArray();
  Rewriter rewriter(messageType, metadata.type());
  for (u32 i = 0; i < array.size(); ++i) rewriter.addOld(array.keyAt(i), array.valueAt(i));
  rewriter.addMissing();
  return rewriter.payload();
}

std::string nameOf(const Tag& tag) try {
  return std::string(KTCommand(tag.plainType(), tag.data, tag.size, false).name().text());
} catch (const KTBreakConnection&) {
  return {};
}

}  // namespace

bool isMetadata(const Tag& tag) {
  return tag.time == 0 && tag.isData() && !tag.isEncrypted() && nameOf(tag) == kMetadataName;
}

std::optional<std::vector<u8>> withReservedKeys(const Tag& tag) try {
  const KTCommand command(tag.plainType(), tag.data, tag.size, false);
  if (command.failed() || command.argCount() != 1 || !command.arg(0).asArray()) return std::nullopt;
  std::vector<u8> payload = rewritten(tag.plainType(), command.arg(0));
  if (payload.empty()) return std::nullopt;
  return payload;
} catch (const KTBreakConnection&) {
  return std::nullopt;
}

std::vector<u8> reservedKeysAlone() {
  Rewriter rewriter(flv::kTypeDataAmf0, KTData::EcmaArray);
  rewriter.addMissing();
  return rewriter.payload();
}

void MetadataReserve::take(const Tag& tag) {
  if (settled_) return sink_(tag);
  if (isMetadata(tag)) return settleWith(tag);
  waiting_.emplace_back(tag);
  waitingBytes_ += tag.size;
  if (tag.time != 0 || waiting_.size() > kMostWaiting || waitingBytes_ > kMostWaitingBytes) settleWithout();
}

void MetadataReserve::settleWith(const Tag& metadata) {
  release();
  const std::optional<std::vector<u8>> payload = withReservedKeys(metadata);
  if (!payload) report("the stream's onMetaData cannot be brought up to date; it is recorded as it came");
  Tag tag = metadata;
  if (payload) tag.data = payload->data(), tag.size = static_cast<u32>(payload->size());
  sink_(tag);
}

void MetadataReserve::settleWithout() {
  const std::vector<u8> payload = reservedKeysAlone();
  sink_({flv::kTypeDataAmf0, 0, 0, payload.data(), static_cast<u32>(payload.size())});
  release();
}

void MetadataReserve::release() {
  settled_ = true;
  for (const OwnedTag& tag : waiting_) sink_(tag.view());
  waiting_ = {};
}

void MetadataReserve::finish() {
  if (!waiting_.empty()) settleWithout();
}

}  // namespace orv::host
