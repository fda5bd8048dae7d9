#include "host/repair/MetadataBuilder.h"

#include <algorithm>
#include <set>
#include <string>
#include <string_view>

namespace orv::host {

namespace {

constexpr char kName[] = "onMetaData";
constexpr char kCreatorKey[] = "metadatacreator";
constexpr char kCreator[] = "flvhost";

// What only holds of the file that it was made for.
constexpr const char* kStaleKeys[] = {
    "keyframes",     "lastkeyframelocation", "datasize",      "videosize",     "audiosize",
    "totalduration", "videodatarate",        "audiodatarate", "totaldatarate", kCreatorKey};

constexpr const char* kLastingKeys[] = {"hasMetadata",  "width",           "height",          "videocodecid",
                                        "audiocodecid", "audiosamplerate", "audiosamplesize", "stereo"};

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  for (char& letter : lower)
    letter = letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + 32) : letter;
  return lower;
}

// Keys are compared without regard to case.
bool isAmong(std::span<const char* const> keys, std::string_view key) {
  return std::ranges::any_of(keys, [&](const char* known) { return lowerCase(key) == lowerCase(known); });
}

KTData numberOf(double value) {
  KTData number;
  number.setNumber(value);
  return number;
}

KTData valueOf(const TrueValue& truth) {
  if (!truth.isFlag) return numberOf(truth.value);
  KTData flag;
  flag.setBool(truth.value != 0);
  return flag;
}

template <class Figure>
KTData listOf(std::span<const KeyFrame> index, Figure figure) {
  KTDataArrayPtr list(new KTDataArray(static_cast<u32>(index.size())));
  for (const KeyFrame& entry : index) list->appendElement(numberOf(figure(entry)));
  KTData value;
  value.setArray(list.get(), KTData::StrictArray);
  return value;
}

KTData indexOf(std::span<const KeyFrame> index) {
  KTDataArrayPtr lists(new KTDataArray(2));
  lists->append("times", listOf(index, [](const KeyFrame& entry) { return entry.seconds; }));
  lists->append("filepositions",
                listOf(index, [](const KeyFrame& entry) { return static_cast<double>(entry.position); }));
  KTData value;
  value.setArray(lists.get(), KTData::Object);
  return value;
}

// Plain values can be said in any encoding.
bool isPlain(const KTData& value) {
  return value.type() == KTData::Number || value.type() == KTData::Boolean || value.type() == KTData::String;
}

class Builder {
 public:
  Builder() {
    writer_.setEncoding(0);
    writer_.setName(kName);
  }

  void add(const char* key, const KTData& value) {
    if (keys_.insert(lowerCase(key)).second) writer_.addArrayProperty(key, value);
  }
  void addOld(const Metadata& old) {
    const KTDataArray* const values = old.values();
    if (!values) return;
    for (u32 i = 0; i < values->size(); ++i) {
      const std::string key(values->keyAt(i).view());
      KTData value = values->valueAt(i);
      if (!isPlain(value) || isStale(key, value)) continue;
      value.setSubtype(KTData::kNoSubtype);
      add(key.c_str(), value);
    }
  }
  std::vector<u8> payload() {
    const KTMessagePtr message = writer_.toDataMessage();
    if (!message) return {};
    return {message->payload(), message->payload() + message->payloadSize()};
  }

 private:
  // What the tags might say, and don't, is believed if it has a form in which they could say it.
  static bool isStale(std::string_view key, const KTData& value) {
    static const std::vector<TrueValue> known = everyTrueValue();
    const auto isOf = [&](const TrueValue& truth) { return lowerCase(key) == lowerCase(truth.key); };
    const auto found = std::ranges::find_if(known, isOf);
    return isAmong(kStaleKeys, key) ||
           (found != known.end() && (found->isFlag || value.type() != KTData::Number));
  }

  KTCommand writer_;
  std::set<std::string> keys_;
};

std::vector<u8> build(const Metadata* old, std::span<const TrueValue> truth, std::span<const KeyFrame> index,
                      std::size_t blanks) {
  Builder builder;
  for (const TrueValue& value : truth) builder.add(value.key, valueOf(value));
  KTData creator;
  creator.setText(kCreator + std::string(blanks, ' '));
  builder.add(kCreatorKey, creator);
  if (old) builder.addOld(*old);
  if (!index.empty()) builder.add("keyframes", indexOf(index));
  return builder.payload();
}

}  // namespace

std::vector<u8> buildMetadata(const Metadata* old, std::span<const TrueValue> truth,
                              std::span<const KeyFrame> index, std::size_t size) {
  std::vector<u8> payload = build(old, truth, index, 0);
  if (payload.empty() || payload.size() >= size) return payload;
  return build(old, truth, index, size - payload.size());
}

std::vector<TrueValue> everyTrueValue() {
  StreamFacts facts;
  facts.audio.tags = facts.video.tags = facts.keyFrames = 1;
  facts.audio.codec = facts.video.codec = 0;
  facts.pictures = {0, 0};
  facts.audioFormat = u8{0};
  return trueMetadata(facts, 0);
}

std::vector<TrueValue> lastingValues(std::span<const TrueValue> values) {
  std::vector<TrueValue> lasting;
  std::ranges::copy_if(values, std::back_inserter(lasting),
                       [](const TrueValue& value) { return isAmong(kLastingKeys, value.key); });
  return lasting;
}

}  // namespace orv::host
