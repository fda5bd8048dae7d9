// Any bytes, walked, checked and repaired. The first byte decides how: bit 0 with an index of key frames, 1
// with times mended, 2 without unknown types, 3 from a pipe.
//
// What the walk returns covers the bytes without a gap or an overlap, and each tag stands in them. The
// repaired file is sound from end to end, holds those tags in order and once, and says its true size. Memory
// stays in bounds.

#include <unistd.h>

#include <filesystem>
#include <vector>

#include "Choices.h"
#include "host/check/Checker.h"
#include "host/files/ReadOnlyFile.h"
#include "host/flv/FlvNames.h"
#include "host/repair/Repair.h"
#include "host/text/Failure.h"
#include "server/FLVTag.h"
#include "support/FileImage.h"
#include "support/HeapWatch.h"

namespace orv::host {
namespace {

using orv::test::Bytes;

constexpr std::size_t kMostMemory = std::size_t{64} << 20;

class MemorySource final : public ByteSource {
 public:
  MemorySource(const u8* data, std::size_t size, bool isPipe) : data_(data), size_(size), isPipe_(isPipe) {}
  const std::string& name() const override { return name_; }
  i64 size() const override { return isPipe_ ? -1 : static_cast<i64>(size_); }
  std::size_t read(i64 position, u8* out, std::size_t size) override {
    const std::size_t from = std::min(size_, static_cast<std::size_t>(position));
    size = std::min(size, size_ - from);
    std::copy_n(data_ + from, size, out);
    return size;
  }

 private:
  const u8* const data_;
  const std::size_t size_;
  const bool isPipe_;
  const std::string name_ = "input";
};

struct FoundTag {
  u8 type;
  u32 time;
  i64 position;
  u32 size;
};

struct Walked {
  std::vector<FoundTag> tags;
  u64 breaks = 0;
};

Walked walk(const u8* data, std::size_t size) {
  MemorySource source(data, size, false);
  Walker walker(source);
  Walked walked;
  i64 end = walker.position();
  HOLDS(walker.header() || end == 0);
  while (const auto step = walker.next()) {
    if (const auto* const tag = std::get_if<WalkedTag>(&*step)) {
      const u8* const there = data + tag->position;
      HOLDS(tag->position == end && tag->dataEnd() <= static_cast<i64>(size));
      const flv::TagHeader header{there};
      HOLDS(header.typeByte() == tag->tag.type && header.time() == tag->tag.time);
      HOLDS(header.dataSize() == tag->tag.size);
      HOLDS(std::equal(tag->tag.data, tag->tag.data + tag->tag.size, there + flv::kTagHeaderSize));
      walked.tags.push_back({tag->tag.type, tag->tag.time, tag->position, tag->tag.size});
    } else {
      const Break& gap = std::get<Break>(*step);
      HOLDS(gap.from == end && gap.to > gap.from);
      ++walked.breaks;
    }
    end = walker.position();
  }
  HOLDS(end >= static_cast<i64>(size));
  return walked;
}

// The file that repair writes; empty if it finds nothing to write.
Bytes repaired(ByteSource& source, const RepairJob& job) {
  static const std::string name =
      std::filesystem::temp_directory_path() / ("repair_fuzz." + std::to_string(::getpid()));
  std::filesystem::remove(name);
  try {
    OutputFile out(name, Existing::replace, FileIdentity{});
    const orv::test::HeapWatch heap;
    repair(source, out, job, [](i64) {});
    HOLDS(heap->peak <= kMostMemory);
  } catch (const Failure& failure) {
    HOLDS(failure.code() == ExitCode::fileFault);
    return {};
  }
  const Bytes bytes = ReadOnlyFile(name).read(0, std::filesystem::file_size(name));
  std::filesystem::remove(name);
  return bytes;
}

// The metadata come first; one of the input's tags, its own metadata, may be missing.
void holdAgainst(const u8* data, const Walked& in, const Bytes& out, const Walked& written,
                 const RepairJob& job) {
  std::size_t missing = 0, next = 1;
  for (const FoundTag& tag : in.tags) {
    const u8* const wanted = data + tag.position + flv::kTagHeaderSize;
    const bool fits =
        next < written.tags.size() && written.tags[next].type == tag.type &&
        written.tags[next].size == tag.size && (job.rules.fixTimes || written.tags[next].time == tag.time) &&
        std::equal(wanted, wanted + tag.size,
                   &out[static_cast<std::size_t>(written.tags[next].position)] + flv::kTagHeaderSize);
    const bool mayBeDropped = job.rules.dropUnknown && !isKnownType(tag.type);
    if (fits) {
      ++next;
    } else if (!mayBeDropped) {
      ++missing;
    }
  }
  HOLDS(next == written.tags.size() && missing <= 1);
}

void check(const u8* data, std::size_t size) {
  MemorySource source(data, size, true);
  Checker checker(source);
  checker.run([](i64) {});
}

}  // namespace
}  // namespace orv::host

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
  using namespace orv::host;
  if (size == 0) return 0;
  const u8 how = *data++;
  --size;
  const bool isPipe = (how & 8) != 0;
  const RepairJob job{{(how & 2) != 0, (how & 4) != 0}, (how & 1) != 0 && !isPipe};
  check(data, size);
  const Walked in = walk(data, size);
  MemorySource source(data, size, isPipe);
  const Bytes out = repaired(source, job);
  if (out.empty()) return 0;

  const Walked written = walk(out.data(), out.size());
  HOLDS(written.breaks == 0);
  holdAgainst(data, in, out, written, job);
  MemorySource again(out.data(), out.size(), false);
  Checker checker(again);
  checker.run([](i64) {});
  for (const Code code :
       {Code::noHeader, Code::sizeField, Code::metadataWrong, Code::indexBeside, Code::headerFlags}) {
    HOLDS(checker.findings().count(code) == 0);
  }
  HOLDS(!job.rules.fixTimes ||
        checker.findings().count(Code::timeBackward) + checker.findings().count(Code::timeJump) == 0);
  return 0;
}
