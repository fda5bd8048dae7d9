// The least host that records: takes the tags of an FLV stream from standard input.
//
// usage: tinyrecorder /absolute/path/of/a/new/file.flv < stream.flv

#include <vector>

#include "DiskHost.h"
#include "util/KTThrowable.h"

namespace {

bool readAll(void* data, std::size_t size) {
  return std::fread(data, 1, size, stdin) == size;
}

struct Tag {
  u8 type;
  u32 time;  // Milliseconds.
  std::vector<u8> data;
};

// False at the end of the stream, or inside a tag that is cut off.
bool readTag(Tag* tag) {
  u8 header[11], trailingSize[4];
  if (!readAll(header, sizeof header)) return false;
  tag->type = header[0];
  tag->time = u32{header[7]} << 24 | u32{header[4]} << 16 | u32{header[5]} << 8 | header[6];
  tag->data.resize(u32{header[1]} << 16 | u32{header[2]} << 8 | header[3]);
  return readAll(tag->data.data(), tag->data.size()) && readAll(trailingSize, sizeof trailingSize);
}

}  // namespace

int main(int argc, char** argv) {
  u8 header[13];
  if (argc != 2 || !readAll(header, sizeof header) || std::memcmp(header, "FLV\x01", 4) != 0) return 2;
  Context context;
  context.settings["RecordCodecs"] = "all";          // H.264 and AAC too.
  context.settings["AutoBufferReadSize"] = "16384";  // Small reads: this host records and doesn't play.
  const Module module(context);
  void* stream = nullptr;
  if (!module || module->open(modulePath(argv[1]).c_str(), 1, nullptr, stream) != StreamLoadOk) {
    std::fprintf(stderr, "can't be recorded to: %s\n", argv[1]);
    return 2;
  }

  constexpr int kTagsAFlush = 250;
  SegmentBounds bounds{};
  Tag tag;
  for (int count = 1; readTag(&tag) && !context.disk.writeFailed; ++count) {
    try {
      module->record(stream, tag.type, tag.data.data(), static_cast<u32>(tag.data.size()), tag.time);
    } catch (const KTBreakConnection&) {
      // A data message of time 0 that is no AMF. Nothing of it is staged; the recording goes on without it.
      std::fprintf(stderr, "dropped a malformed data message\n");
    }
    if (count % kTagsAFlush == 0) module->flushSegment(stream, &bounds);
  }
  module->flushSegment(stream, &bounds);  // What `close` would lose.
  std::printf("%ld bytes, %u ms\n", module->getSize(stream), module->getDuration(stream));
  module->close(stream);
  if (context.disk.writeFailed)
    std::fprintf(stderr, "a write failed; the end of the recording may be lost\n");
  return context.disk.writeFailed ? 1 : 0;
}
