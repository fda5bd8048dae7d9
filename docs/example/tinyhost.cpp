// The least host that plays: opens a file and walks it from end to end.
//
// usage: tinyhost /absolute/path/of/a/file.flv

#include "DiskHost.h"

namespace {

// Counts tags. A message is a tag's data, or an aggregate of type 22: a run of whole tags.
class Counter final : public ISegmentHolder {
 public:
  int audio = 0;
  int video = 0;

  void onMessage(unsigned short type, const void* data, u32 size, u32) override {
    if (type != 22) return count(type);
    const auto* const bytes = static_cast<const u8*>(data);
    for (u32 at = 0; at < size;) {
      const u8* const tag = bytes + at;
      count(tag[0]);
      at += (u32{tag[1]} << 16 | u32{tag[2]} << 8 | tag[3]) + 15;
    }
  }
  void reserved() override {}

 private:
  void count(unsigned type) {
    if ((type & 0x1F) == 8) ++audio;
    if ((type & 0x1F) == 9) ++video;
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  Context context;
  const Module module(context);
  if (!module) return 2;

  void* stream = nullptr;
  if (module->open(modulePath(argv[1]).c_str(), 0, nullptr, stream) != StreamLoadOk) {
    std::fprintf(stderr, "not an FLV file: %s\n", argv[1]);
    return 1;
  }
  Counter counter;
  int segments = 0;
  SegmentBounds bounds{};
  for (i64 at = 0; module->findSegmentByIndex(stream, at, &bounds); at = bounds.endPosition + 1) {
    if (!module->loadSegment(stream, &bounds, &counter)) std::fprintf(stderr, "a bad segment at %ld\n", at);
    ++segments;
  }
  std::printf("%ld bytes, %u ms, %d segments, %d audio tags, %d video tags\n", module->getSize(stream),
              module->getDuration(stream), segments, counter.audio, counter.video);
  module->close(stream);
  return 0;
}
