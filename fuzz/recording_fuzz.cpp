// A recording session alone, held against a model that knows each byte of the file: the header, the tags in
// the order of their calls, the flags, and the metadata as each flush brings it up to date. A player beside
// it finds each flush, and nothing before.
//
// The input decides messages, flushes, and when the handle is closed and another goes on.

#include <cstring>
#include <optional>

#include "RandomFilm.h"
#include "modules/streams/flv/FLVAdaptor.h"
#include "support/MemoryHost.h"
#include "support/Module.h"

namespace orv::test {
namespace {

constexpr char kName[] = "f", kFile[] = "f.flv";
constexpr u32 kMostSteps = 120;

const bool kQuiet = std::freopen("/dev/null", "w", stdout) != nullptr;

// What a flush keeps up to date lies at fixed places of publisherMetadata(), counted from the payload's end.
constexpr std::size_t kSeekEnd = 4, kAudio = kSeekEnd + 15 + 8, kVideo = kAudio + 14 + 9,
                      kDuration = kVideo + 14 + 9;

class Model {
 public:
  Bytes file;
  std::vector<Message> tags;  // In the file, but for data at time 0: it may be a record of the head.

  u32 lastTime() const { return duration_; }

  // A new handle: it knows of the file what a scan finds, and no codec yet.
  void open() {
    if (file.empty()) file = {'F', 'L', 'V', 1, 0, 0, 0, 0, 9, 0, 0, 0, 0};
    videoCodec_ = audioCodec_ = 0;
    lastVideoKey_ = false;
    look();
  }

  void record(const Message& message) {
    if (isRefused(message)) return;
    const u8 type = static_cast<u8>(message.type);
    if (type == 9 && !message.data.empty()) {
      if (videoCodec_ == 0) videoCodec_ = message.data[0] & 15;
      lastVideoKey_ = message.data[0] >> 4 == 1;
    }
    if (type == 8 && !message.data.empty() && audioCodec_ == 0) audioCodec_ = message.data[0] >> 4;
    if (!metadata_ && isMetadata(type, message.time, message.data)) metadata_ = file.size() + staged_.size();
    const Bytes tag = tagBytes(type, message.time, message.data);
    staged_.insert(staged_.end(), tag.begin(), tag.end());
    flags_ = static_cast<u8>(flags_ | (type == 9 ? 1 : type != 8 ? 8 : message.data.empty() ? 0 : 4));
    duration_ = std::max(duration_, message.time);
  }

  void flush() {
    file.insert(file.end(), staged_.begin(), staged_.end());
    file[flv::kTypeFlagsPosition] |= flags_;
    if (metadata_) updateMetadata();
    look();
  }

 private:
  static bool isMetadata(u8 type, u32 time, const Bytes& payload) {
    const Bytes name = publisherMetadata(false);
    return type == 18 && time == 0 && payload.size() >= 13 &&
           std::equal(name.begin(), name.begin() + 13, payload.begin());
  }

  // What a scan of the whole file finds.
  void look() {
    staged_.clear();
    flags_ = 0;
    duration_ = 0;
    metadata_.reset();
    tags.clear();
    bool isHead = true;
    int count = 0;
    for (std::size_t at = flv::kFirstTagPosition; at < file.size(); ++count) {
      const flv::TagHeader tag{&file[at]};
      const Bytes payload(&file[at] + flv::kTagHeaderSize, &file[at] + flv::kTagHeaderSize + tag.dataSize());
      isHead &= tag.time() == 0 && count < 20;
      if (isHead && !metadata_ && isMetadata(tag.typeByte(), tag.time(), payload)) metadata_ = at;
      duration_ = tag.time();
      if (tag.typeByte() != 18 || tag.time() != 0) tags.push_back({tag.typeByte(), tag.time(), payload});
      at += tag.dataSize() + flv::kTagOverhead;
    }
  }

  void updateMetadata() {
    u8* const tag = &file[*metadata_];
    u8* const payload = tag + flv::kTagHeaderSize;
    u8* const end = payload + flv::TagHeader{tag}.dataSize();
    if (payload[13] == 8) std::memset(payload + 14, 0, 4);  // An array's count.
    putNumber(end - kDuration, duration_ / 1000.0);
    if (isZero(end - kVideo)) putNumber(end - kVideo, videoCodec_);
    if (isZero(end - kAudio)) putNumber(end - kAudio, audioCodec_);
    *(end - kSeekEnd) = lastVideoKey_;
  }

  static bool isZero(const u8* number) {
    static constexpr u8 kZero[8] = {};
    return std::memcmp(number, kZero, sizeof kZero) == 0;
  }
  static void putNumber(u8* out, double number) {
    u8 bytes[8];
    std::memcpy(bytes, &number, sizeof bytes);
    std::reverse_copy(bytes, bytes + 8, out);
  }

  Bytes staged_;
  u8 flags_ = 0;
  u32 duration_ = 0;
  u32 videoCodec_ = 0, audioCodec_ = 0;
  bool lastVideoKey_ = false;
  std::optional<std::size_t> metadata_;  // Where its tag stands, or will.
};

Message randomTag(Choices& choose, u32* time) {
  static constexpr u32 kSizes[] = {300, 20, 0, 1, 2, 11, 4000, 40'000};
  static constexpr u8 kFirst[] = {0x12, 0x22, 0x17, 0x2F, 0xAF, 0x14, 0x31, 0x6C};
  if (choose.oneIn(8)) return {18, choose.oneIn(4) ? *time : 0, publisherMetadata(choose.oneIn(2))};
  const u8 type = choose.oneIn(3) ? 8 : 9;
  Bytes data = payload(type, choose.of(kSizes), choose.byte());
  if (!data.empty()) data[0] = choose.of(kFirst);
  if (choose.oneIn(2)) *time += choose.below(200);
  if (choose.oneIn(16)) *time /= 2;
  return {type, *time, std::move(data)};
}

void expectPlayed(Stream& player, const Model& model) {
  HOLDS(player.size() == static_cast<i64>(model.file.size()));
  HOLDS(player.duration() == model.lastTime());
  HOLDS(player.type() == model.file[flv::kTypeFlagsPosition]);
  std::vector<Message> found;
  for (const SegmentBounds& bounds : player.walk())
    for (Message& tag : player.load(bounds))
      if (tag.type != 18 || tag.time != 0) found.push_back(std::move(tag));
  HOLDS(found == model.tags);
}

}  // namespace
}  // namespace orv::test

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
  using namespace orv::test;
  Choices choose(data, size);
  MemoryHost host;
  if (choose.oneIn(2)) host.settings["AutoBufferReadSize"] = "1024";
  host.settings["EnableAggMsgs"] = "false";
  orv::flv::FLVAdaptor adaptor(&host);
  std::optional<Stream> player;
  Model model;
  u32 time = 0;
  for (u32 steps = 0; steps < kMostSteps && !choose.empty();) {
    Stream stream(adaptor, kName, Stream::record);
    HOLDS(stream);
    model.open();
    if (!player) player.emplace(adaptor, kName);
    for (bool more = true; more && steps < kMostSteps && !choose.empty(); ++steps) {
      const Message message = randomTag(choose, &time);
      HOLDS(stream.stage(message.type, message.time, message.data));
      model.record(message);
      if (!choose.oneIn(5)) continue;
      HOLDS(stream.flush());
      model.flush();
      HOLDS(host.file(kFile).image.bytes() == model.file);
      expectPlayed(choose.oneIn(2) ? stream : *player, model);
      more = !choose.oneIn(3);
    }
    if (stream.flush()) model.flush();
    HOLDS(host.file(kFile).image.bytes() == model.file);
  }
  return 0;
}
