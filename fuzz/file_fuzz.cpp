// A whole file, and a host that may fail, through everything a player does.
//
// Input: 8 bytes of settings and events, then the file.
//   0  bits: 0 strict about the last tag, 1 one report of bad data only, 2 small read cache, 3 one aggregate
//   a
//      tag, 4 short search, 5 faults last, 6 and 7 a long tag takes the place of the file's first bytes, so
//      that the rest lies around the end of the first block
//   1  how much of the file stands there at first, in 255ths; the rest is appended after the first queries
//   2  the host call that goes wrong, 0: none       3  bit 0: it falls short instead of failing
//   4  a time to search for, in 4 bytes

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "engine/ReferenceScan.h"
#include "modules/streams/flv/FLVAdaptor.h"
#include "support/FlvBuilder.h"
#include "support/MemoryHost.h"
#include "support/Module.h"

namespace orv::test {
namespace {

constexpr std::size_t kHead = 8;
constexpr int kMaxSegments = 64;

#define HOLDS(condition) \
  if (!(condition)) std::fprintf(stderr, "line %d: %s\n", __LINE__, #condition), std::abort()

// The module reports short reads on standard output.
const bool kQuiet = std::freopen("/dev/null", "w", stdout) != nullptr;

bool isFirst(const Message& tag) {
  return tag.time == 0;
}

// Delivered in one packing or the other; a tag of time 0 overtakes those that are being packed.
std::vector<Message> inOneOrder(std::vector<Message> tags) {
  std::stable_partition(tags.begin(), tags.end(), isFirst);
  return tags;
}

class Player {
 public:
  Player(MemoryHost& host, const u8* head) : host_(host), head_(head) {
    auto& settings = host.settings;
    if (head[0] & 1) settings["PlayIncompleteFLVs"] = "false";
    if (head[0] & 2) settings["RetryCorruptedFLVs"] = '0';
    // Blocks as large as the default come from the kernel each time in a sanitizer's build.
    settings["AutoBufferReadSize"] = (head[0] & 0xC4) == 4 ? "1024" : "60000";
    if (head[0] & 8) settings["MaxAggMsgSize"] = '0';
    if (head[0] & 16) settings["MaxFrameScan"] = settings["MaxBackFrameScan"] = "131072";
    settings["EnableAggMsgs"] = "true";
    packing_.emplace(&host);
    settings["EnableAggMsgs"] = "false";
    single_.emplace(&host);
  }

  // `healthy`: the host does all it is asked for, and the whole file stands there.
  void play(const Bytes& late, const ReferenceScan* healthy) {
    Stream packed(*packing_, "f"), single(*single_, "f");
    if (healthy) {
      ReferenceScan scan = *healthy;
      scan.playIncomplete = !(head_[0] & 1);
      if (head_[0] & 16) scan.maxFrameScan = scan.maxBackFrameScan = 0x20000;
      const bool opened = scan.open();
      HOLDS(scan.ambiguous || opened == bool(packed));
      HOLDS(scan.ambiguous || !opened ||
            (packed.size() == scan.dataEnd && packed.duration() == scan.duration));
    }
    if (!packed || !single) return;
    query(packed, single);
    if (!late.empty()) host_.append("f.flv", late);
    packed.duration();
    HOLDS(packed.size() >= 0 && single.endPosition() >= 0);
    query(packed, single);
    walk(packed);
    packed.load({0, static_cast<i64>(host_.exists("f.flv")) << 40, 0, 0});
  }

 private:
  void query(Stream& packed, Stream& single) {
    const u32 time = flv::readU32(head_ + 4);
    for (const auto& found : {packed.atTime(time), packed.atTime(packed.duration()), packed.atPosition(time)})
      if (found) check(packed, single, *found);
  }

  void check(Stream& packed, Stream& single, const SegmentBounds& bounds) {
    HOLDS(bounds.startPosition >= 0 && bounds.endPosition >= bounds.startPosition);
    bool packedGood = false, singleGood = false;
    const auto packedTags = unpack(packed.load(bounds, &packedGood));
    const auto singleTags = single.load(bounds, &singleGood);
    std::size_t bytes = 0;
    for (const Message& tag : singleTags) bytes += tag.data.size();
    // The last tag of the run may be as long as the whole of it.
    HOLDS(static_cast<i64>(bytes) <= 2 * (bounds.endPosition - bounds.startPosition + 1));
    if (packedGood && singleGood) HOLDS(inOneOrder(packedTags) == inOneOrder(singleTags));
  }

  void walk(Stream& stream) {
    i64 next = 0;
    for (int i = 0; i < kMaxSegments; ++i) {
      const auto found = stream.atPosition(next);
      if (!found) return;
      HOLDS(found->startPosition <= next && found->endPosition >= next);
      next = found->endPosition + 1;
    }
  }

  MemoryHost& host_;
  const u8* head_;
  std::optional<flv::FLVAdaptor> packing_, single_;
};

Bytes fileOf(const u8* data, std::size_t size) {
  Bytes rest(data + kHead, data + size);
  if ((data[0] & 0xC0) != 0xC0 || rest.size() < flv::kFirstTagPosition) return rest;
  static const Bytes lead = FlvBuilder().tag(flv::kTypeVideo, 0, 262'000).bytes();
  Bytes file = lead;
  file.insert(file.end(), rest.begin() + flv::kFirstTagPosition, rest.end());
  return file;
}

}  // namespace
}  // namespace orv::test

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
  using namespace orv::test;
  if (size < kHead) return 0;
  const Bytes file = fileOf(data, size);
  const auto middle = file.begin() + static_cast<std::ptrdiff_t>(file.size() * data[1] / 255);
  const Bytes early(file.begin(), middle), late(middle, file.end());
  MemoryHost host;
  host.put("f.flv", early);
  host.failCall(data[2], data[3] & 1 ? Fault::fallsShort : Fault::fails, {}, (data[0] & 32) != 0);
  ReferenceScan reference;
  reference.file = early;
  Player(host, data).play(late, data[2] == 0 ? &reference : nullptr);
  HOLDS(host.openDescriptors() == 0 && host.misuses() == 0);
  return 0;
}
