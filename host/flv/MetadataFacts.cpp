#include "host/flv/MetadataFacts.h"

#include <algorithm>

#include "util/KTThrowable.h"

namespace orv::host {

namespace {

constexpr char kName[] = "onMetaData";
constexpr double kDurationTolerance = 0.5;  // No tag says how long the last one lasts.
constexpr double kTimeTolerance = 0.001;
constexpr double kRates[] = {5512, 11025, 22050, 44100};

double seconds(u32 time) {
  return time / 1000.0;
}

}  // namespace

std::vector<TrueValue> trueMetadata(const StreamFacts& facts, std::optional<i64> fileSize) {
  const bool hasVideo = facts.video.tags > 0, hasAudio = facts.audio.tags > 0;
  std::vector<TrueValue> values = {{"hasMetadata", 1, true},
                                   {"hasVideo", hasVideo ? 1.0 : 0, true},
                                   {"hasAudio", hasAudio ? 1.0 : 0, true},
                                   {"hasKeyframes", facts.keyFrames > 0 ? 1.0 : 0, true},
                                   {"canSeekToEnd", facts.endsWithKeyMark ? 1.0 : 0, true},
                                   {"duration", seconds(facts.duration()), false, kDurationTolerance},
                                   {"lasttimestamp", seconds(facts.lastTime), false, kTimeTolerance}};
  const auto add = [&](bool isKnown, const char* key, double value, double tolerance = 0) {
    if (isKnown) values.push_back({key, value, false, tolerance});
  };
  add(facts.keyFrames > 0, "lastkeyframetimestamp", seconds(facts.lastKeyFrameTime), kTimeTolerance);
  add(facts.pictures.has_value(), "width", facts.pictures ? facts.pictures->width : 0);
  add(facts.pictures.has_value(), "height", facts.pictures ? facts.pictures->height : 0);
  add(facts.video.codec.has_value(), "videocodecid", facts.video.codec.value_or(0));
  add(facts.audio.codec.has_value(), "audiocodecid", facts.audio.codec.value_or(0));
  if (const auto format = facts.audioFormat; format && statesFormat(flv::soundFormatOf(*format))) {
    add(true, "audiosamplerate", kRates[rateIndexOf(*format)], 50);
    add(true, "audiosamplesize", sampleBitsOf(*format));
    values.push_back({"stereo", isStereo(*format) ? 1.0 : 0, true});
  }
  add(fileSize.has_value(), "filesize", static_cast<double>(fileSize.value_or(0)));
  return values;
}

std::optional<Metadata> Metadata::read(const Tag& tag) try {
  if (!tag.isData() || tag.isEncrypted()) return std::nullopt;
  auto command = std::make_unique<KTCommand>(tag.plainType(), tag.data, tag.size, false);
  if (command->name().type() != KTData::String || command->name().text() != kName) return std::nullopt;
  return Metadata(std::move(command));
} catch (const KTBreakConnection&) {
  return std::nullopt;
}

std::string Metadata::nameOf(const Tag& tag) try {
  const KTCommand command(tag.plainType(), tag.data, tag.size, false);
  return command.name().type() == KTData::String ? std::string(command.name().text()) : "";
} catch (const KTBreakConnection&) {
  return {};
}

const KTData& Metadata::find(const char* key) const {
  static const KTData missing{};
  return values() ? values()->find(key) : missing;
}

std::vector<KeyFrame> Metadata::keyFrames() const {
  const KTDataArray* const index = find("keyframes").asArray();
  const KTDataArray* const positions = index ? index->find("filepositions").asArray() : nullptr;
  const KTDataArray* const times = index ? index->find("times").asArray() : nullptr;
  std::vector<KeyFrame> entries;
  if (!positions || !times) return entries;
  for (u32 i = 0; i < std::min(positions->size(), times->size()); ++i) {
    entries.push_back({positions->valueAt(i).toInt64(), times->valueAt(i).toDouble()});
  }
  return entries;
}

}  // namespace orv::host
