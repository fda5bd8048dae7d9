// A recording that a power cut ends at any moment. The input decides the messages, the flushes, the moment,
// and what the disk kept of all that wasn't synced.
//
// With a sync at each flush: all tags of completed flushes stand in the file, in order and unbroken from its
// first byte; a player finds all of them but the last one or two, which a torn successor may hide; and
// flvhost finds that too. Without: whatever is there, no reader is led astray, and what it delivers stands in
// the file.

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "CutDisk.h"
#include "RandomFilm.h"
#include "host/files/SyncedFiles.h"
#include "host/module/FileSummary.h"
#include "host/module/FileTail.h"
#include "modules/streams/flv/FLVAdaptor.h"
#include "support/MemoryHost.h"
#include "support/Module.h"

namespace orv::test {
namespace {

constexpr u32 kMostTags = 60;

const bool kQuiet = std::freopen("/dev/null", "w", stdout) != nullptr;

class CutContext final : public TestContext {
 public:
  explicit CutContext(IFileService& files) : files_(files) {
    settings["MaxBackFrameScan"] = settings["MaxFrameScan"] = "16777216";
    settings["EnableAggMsgs"] = "false";
  }
  IFileService* getFileService() override { return &files_; }

 private:
  IFileService& files_;
};

// What the disk holds after the cut.
struct Remains {
  Bytes file;
  std::size_t promisedTags;  // Of completed flushes,
  Bytes promised;            // and the file after the last of them.
  std::size_t stagedTags;    // With those of the flush under way.
};

class CutRecording {
 public:
  explicit CutRecording(Choices& choose)
      : choose_(choose),
        synced_(choose.oneIn(3) ? host::Sync::none : host::Sync::flush),
        files_(disk_, synced_,
               {[this](int) { return disk_.sync(), true; }, [](const std::string&) { return true; }}),
        context_(files_) {
    u32 changesToGo = choose.below(60);
    disk_.beforeChange = [this, changesToGo]() mutable {
      if (!remains_ && changesToGo-- == 0) cut();
    };
  }

  void run() {
    flv::FLVAdaptor adaptor(&context_);
    record(adaptor);
    if (!remains_) cut();
    if (synced_ == host::Sync::flush) {
      expectPromised();
      expectSight();
    }
    expectPlayable();
  }

 private:
  void cut() { remains_ = {disk_.afterCut(choose_), promisedTags_, promised_, tags_.size()}; }

  void record(flv::FLVAdaptor& adaptor) {
    Stream stream(adaptor, "f", Stream::record);
    HOLDS(stream);
    u32 time = 0;
    for (u32 tag = 0; tag < kMostTags && !choose_.empty() && !remains_; ++tag) {
      Message message = randomTag(&time);
      HOLDS(stream.stage(message.type, message.time, message.data));
      tags_.push_back(std::move(message));
      if (choose_.oneIn(4)) flush(stream);
    }
    flush(stream);
  }

  void flush(Stream& stream) {
    if (!stream.flush()) return;
    promisedTags_ = tags_.size();
    promised_ = disk_.bytes();
  }

  // Nothing that the module would leave out; now and then a large one.
  Message randomTag(u32* time) {
    static constexpr u32 kSizes[] = {300, 20, 1500, 600, 40'000, 700'000};
    if (tags_.empty()) return {18, 0, publisherMetadata(choose_.oneIn(2))};
    const u8 type = choose_.oneIn(3) ? 8 : 9;
    const u32 size = kSizes[choose_.byte() % 16 < 14 ? choose_.below(4) : choose_.below(6)];
    return {type, *time += 20, payload(type, size, static_cast<u32>(tags_.size()))};
  }

  void expectPromised() const {
    const auto& [file, promisedTags, promised, stagedTags] = *remains_;
    HOLDS(standing(promisedTags));
    HOLDS(file.size() >= promised.size());
    // Flags and metadata speak of the tags of a flush only once these are there.
    if (!std::equal(promised.begin(), promised.end(), file.begin())) HOLDS(standing(stagedTags));
  }

  // Whether the first `count` tags stand in the file; of the metadata, what doesn't change.
  bool standing(std::size_t count) const {
    const Bytes& file = remains_->file;
    std::size_t at = flv::kFirstTagPosition;
    for (std::size_t i = 0; i < count; ++i) {
      const Message& tag = tags_[i];
      const Bytes wanted = tagBytes(static_cast<u8>(tag.type), tag.time, tag.data);
      if (file.size() < at + wanted.size()) return false;
      const std::size_t compared = i == 0 ? flv::kTagHeaderSize + 13 : wanted.size();
      if (!std::equal(wanted.begin(), wanted.begin() + static_cast<std::ptrdiff_t>(compared),
                      file.begin() + static_cast<std::ptrdiff_t>(at)))
        return false;
      at += wanted.size();
    }
    return true;
  }

  // What `record --append` and `info` see of the file.
  void expectSight() const {
    if (remains_->promisedTags == 0) return;
    static const std::string name =
        (std::filesystem::temp_directory_path() / ("powercut" + std::to_string(getpid()) + ".flv")).string();
    static host::Session session({.module = FLV_MODULE_PATH, .settings = {}});
    const Bytes& file = remains_->file;
    std::ofstream(name, std::ios::binary)
        .write(reinterpret_cast<const char*>(file.data()), static_cast<std::streamsize>(file.size()));
    const auto promised = static_cast<i64>(remains_->promised.size());
    HOLDS(host::readTail(session, name).playableEnd >= promised);
    host::Stream stream = session.open(name);
    HOLDS(host::summarize(stream, host::Depth::front).hidden.end >= promised);
    std::filesystem::remove(name);
  }

  void expectPlayable() const {
    MemoryHost host;
    host.settings = context_.settings;
    host.put("f.flv", remains_->file);
    flv::FLVAdaptor adaptor(&host);
    Stream player(adaptor, "f");
    const std::size_t promised = synced_ == host::Sync::flush ? remains_->promisedTags : 0;
    HOLDS(player || promised < 2);
    if (!player) return;
    std::vector<Message> found;
    i64 next = 0;
    while (const auto bounds = player.atPosition(next)) {
      if (bounds->endPosition < next) break;
      next = bounds->endPosition + 1;
      for (Message& tag : player.load(*bounds)) found.push_back(std::move(tag));
    }
    // A gap in the torn flush, with whole tags behind it, hides two: a segment ends in front of the last tag
    // that can be known there.
    const bool hasGap =
        player.size() > static_cast<i64>(remains_->promised.size()) && !standing(remains_->stagedTags);
    const std::size_t hidden = hasGap ? 2 : 1;
    // The first is the metadata, which isn't delivered.
    for (std::size_t i = 1; i + hidden < promised; ++i) HOLDS(found.size() >= i && found[i - 1] == tags_[i]);
  }

  Choices& choose_;
  const host::Sync synced_;
  CutDisk disk_;
  host::SyncedFiles files_;
  CutContext context_;
  std::vector<Message> tags_;
  std::size_t promisedTags_ = 0;
  Bytes promised_;
  std::optional<Remains> remains_;
};

}  // namespace
}  // namespace orv::test

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
  orv::test::Choices choose(data, size);
  orv::test::CutRecording(choose).run();
  return 0;
}
