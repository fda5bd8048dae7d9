// Each allocation of each road fails once. The input decides the road, a film and what is recorded into it.
//
// A call that ran out of memory answers false, drops its message or lets std::bad_alloc or KTOutOfMemory out.
// Behind it no lock is left and no descriptor that wasn't open before; the same call, made again, does all
// that it would have done; what stood in the file stands there, and no tag stands there twice.

#include <list>
#include <memory>
#include <new>
#include <optional>
#include <thread>
#include <utility>

#include "RandomFilm.h"
#include "modules/streams/flv/FLVAdaptor.h"
#include "support/HeapWatch.h"
#include "support/MemoryHost.h"
#include "support/Module.h"
#include "util/KTThrowable.h"
#include "util/WarmBlocks.h"

namespace orv::test {
namespace {

constexpr char kName[] = "f", kFile[] = "f.flv";
constexpr std::size_t kMostAllocations = 3000;

const bool kQuiet = std::freopen("/dev/null", "w", stdout) != nullptr;

// While it stands, allocations succeed, and are not counted: the host's own.
class Spared {
 public:
  Spared() : failure_(std::exchange(HeapWatch::counts().untilFailure, 0)) {}
  ~Spared() { HeapWatch::counts().untilFailure = failure_; }
  Spared(const Spared&) = delete;
  Spared& operator=(const Spared&) = delete;

 private:
  const std::size_t failure_;
};

// A host that never runs out of memory itself.
class SparedHost final : public IQVStreamContext, public IFileService {
 public:
  MemoryHost host;

  template <class Call>
  static auto spared(Call&& call) {
    const Spared scope;
    return call();
  }
  void reserved() override {}
  int getConfigValue(const char* key, char** buffer, u32 size) override {
    return spared([&] { return host.getConfigValue(key, buffer, size); });
  }
  void logMessage(const char*, int, int) override {}
  IFileService* getFileService() override { return this; }
  int open(const char* path, int flags, int mode, int) override {
    return spared([&] { return host.open(path, flags, mode, 0); });
  }
  int close(int fd, int) override {
    return spared([&] { return host.close(fd, 0); });
  }
  int read(int fd, i64 position, void* data, u32 size) override {
    return spared([&] { return host.read(fd, position, data, size); });
  }
  int write(int fd, i64 position, const void* data, u32 size) override {
    return spared([&] { return host.write(fd, position, data, size); });
  }
  int fstat(int fd, FileStat* record, int) override {
    return spared([&] { return host.fstat(fd, record, 0); });
  }
  int stat(const char* path, FileStat* record, int) override {
    return spared([&] { return host.stat(path, record, 0); });
  }
  int unlink(const char* path, int) override {
    return spared([&] { return host.unlink(path, 0); });
  }
  void mkdir(const char*) override {}
};

// What reached it, as one number.
class Digest final : public ISegmentHolder, public IContextHolder, public IAllContextHolder {
 public:
  u64 value = 1469598103934665603u;

  void onMessage(unsigned short type, const void* data, u32 size, u32 time) override {
    add(&type, sizeof type);
    add(&time, sizeof time);
    add(data, size);
  }
  void reserved() override {}
  void onContext(unsigned short type, const void* data, u32 size, u32, i64, u32 trackID, u32) override {
    onMessage(type, data, size, trackID);
  }
  void onAllContexts(const void* data, u32 size) override { add(data, size); }
  void add(const void* data, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) value = (value ^ static_cast<const u8*>(data)[i]) * 1099511628211u;
  }
};

enum class Outcome { done, refused, threw };

template <class Call>
Outcome outcomeOf(Call&& call) {
  try {
    return call() ? Outcome::done : Outcome::refused;
  } catch (const std::bad_alloc&) {
  } catch (const KTOutOfMemory&) {
  }
  return Outcome::threw;
}

// One host with the film, and one stream of it.
struct Scene {
  explicit Scene(const Bytes& film) {
    files.host.firstDescriptor = 1 << 20;
    files.host.settings["AutoBufferReadSize"] = "60000";
    if (!film.empty()) files.host.put(kFile, film);
    adaptor.emplace(&files);
  }
  Bytes bytes() { return files.host.exists(kFile) ? files.host.file(kFile).image.bytes() : Bytes{}; }

  SparedHost files;
  std::optional<flv::FLVAdaptor> adaptor;
  std::unique_ptr<Stream> stream;
};

class Sweep {
 public:
  explicit Sweep(Choices& choose) : road_(choose.below(8)) {
    u32 time = 0;
    FlvBuilder film;
    film.tag(18, 0, publisherMetadata(true));
    for (u32 tags = 2 + choose.below(12); tags > 0; --tags)
      film.tag(choose.oneIn(3) ? 8 : 9, time += 40, 30 + choose.below(20'000));
    film_ = film.bytes();
    more_.push_back({18, 0, publisherMetadata(choose.oneIn(2))});
    for (u32 tags = 1 + choose.below(6); tags > 0; --tags) {
      const u8 type = choose.oneIn(3) ? 8 : 9;
      more_.push_back({type, time += 40, payload(type, 40 + choose.below(60'000), tags)});
    }
    time_ = choose.below(400);
    if (choose.oneIn(2)) film_.clear();
    if (road_ == 5 && !film_.empty()) more_.erase(more_.begin());
  }

  void run() {
    if (film_.empty() && road_ < 4) return;
    std::size_t n = 1;
    while (n <= kMostAllocations && tryWith(n)) ++n;
    HOLDS(n <= kMostAllocations);
    // A load without its work block is an answer and no exception.
    if (road_ == 3) HOLDS(refused_ > 0);
  }

 private:
  // False once the road takes fewer than `n` allocations.
  bool tryWith(std::size_t n) {
    HeapWatch heap;
    Scene scene(film_);
    prepare(scene);
    takeWarmBlocks();
    const u32 open = scene.files.host.openDescriptors();
    heap.failAt(n);
    const Outcome outcome = outcomeOf([&] { return go(scene); });
    const bool failed = !heap.failurePending();
    heap.failAt(0);
    refused_ += outcome == Outcome::refused;
    HOLDS(failed || outcome == Outcome::done);
    if (road_ == 0 || road_ == 4) HOLDS(outcome != Outcome::threw);  // An opening.
    HOLDS(scene.files.host.openDescriptors() <= std::max(open, road_ >= 4 ? 1u : 0u));
    expectNoLock(scene);
    settle(scene, outcome);
    scene.stream.reset();
    HOLDS(scene.files.host.openDescriptors() == 0 && scene.files.host.misuses() == 0);
    return failed;
  }

  void prepare(Scene& scene) {
    accepted_.clear();
    if (road_ == 0 || road_ == 4) return;
    const bool records = road_ >= 6;
    scene.stream = std::make_unique<Stream>(*scene.adaptor, kName,
                                            records || film_.empty() ? Stream::record : Stream::play);
    HOLDS(*scene.stream);
    if (road_ == 6) stageAll(scene);
    if (road_ == 1) scene.files.host.append(kFile, tagBytes(9, 9000, payload(9, 50, 1)));
  }

  // All that are kept of the sizes in play: who needs one has to ask the system.
  void takeWarmBlocks() {
    warm_.clear();
    for (std::size_t size = 32 << 10; size <= 512 << 10; size *= 2)
      for (int i = 0; i < 10; ++i) warm_.emplace_back(size);
  }

  bool go(Scene& scene) {
    switch (road_) {
      case 0:
        return opens(scene, Stream::play);
      case 1:
        return look(scene) != 0;
      case 2:
        return find(scene).has_value();
      case 3:
        return load(scene);
      case 4:
        return opens(scene, Stream::record);
      case 6:
        return scene.stream->flush().has_value();
      default:  // 5: on a stream that has to open its file first
        return stageAll(scene);
    }
  }

  static bool opens(Scene& scene, Stream::Mode mode) {
    void* handle = nullptr;
    const bool opened = scene.adaptor->open(kName, mode, nullptr, handle) == StreamLoadOk;
    HOLDS(opened == (handle != nullptr));
    scene.adaptor->close(handle);
    return opened;
  }

  u64 look(Scene& scene) {
    Digest digest;
    const i64 numbers[] = {scene.stream->size(), scene.stream->duration(), scene.stream->endPosition()};
    if (numbers[0] <= 0) return 0;
    digest.add(numbers, sizeof numbers);
    auto& adaptor = scene.stream->adaptor;
    if (!adaptor.getMediaContexts(scene.stream->handle, ContextTypeBefore, 0, &digest)) return 0;
    if (!adaptor.getAllMediaContexts(scene.stream->handle, &digest)) return 0;
    return digest.value;
  }

  std::optional<SegmentBounds> find(Scene& scene) {
    const auto byTime = scene.stream->atTime(40 + time_ % 40);
    return byTime ? scene.stream->atPosition(0) : byTime;
  }

  bool load(Scene& scene) {
    digest_ = {};
    SegmentBounds all{0, static_cast<i64>(film_.size()) - 1, 0, 0};
    return scene.stream->adaptor.loadSegment(scene.stream->handle, &all, &digest_);
  }

  // True if every message was taken. One whose call threw wasn't staged.
  bool stageAll(Scene& scene) {
    bool all = true;
    for (const Message& message : more_) {
      const Outcome outcome =
          outcomeOf([&] { return scene.stream->stage(message.type, message.time, message.data); });
      const Spared scope;
      if (outcome == Outcome::done) accepted_.push_back(message);
      // Media alone: memory runs out where the file is opened, which is then closed.
      if (outcome == Outcome::threw && road_ == 5 && !film_.empty())
        HOLDS(scene.files.host.openDescriptors() == 0);
      all &= outcome == Outcome::done;
    }
    return all;
  }

  // Any other thread gets through.
  static void expectNoLock(Scene& scene) {
    if (!scene.stream || !*scene.stream) return;
    std::thread([&] { scene.stream->adaptor.setUserData(scene.stream->handle, nullptr); }).join();
  }

  // What a host whose memory never ran out gets. A process has one host at a time: the scene's is over.
  template <class Call>
  auto undisturbed(Call&& call) {
    Scene other(film_);
    prepare(other);
    return call(other);
  }

  // What didn't succeed is made good by trying again.
  void settle(Scene& scene, Outcome outcome) {
    switch (road_) {
      case 0:
      case 4:
        if (outcome != Outcome::done) HOLDS(go(scene));
        return;
      case 1: {
        // A look that failed, or left out a record that there was no memory for, is over: the next change is
        // seen.
        scene.files.host.append(kFile, {});
        const u64 got = look(scene);
        HOLDS(got == undisturbed([this](Scene& other) { return look(other); }));
        return;
      }
      case 2: {
        const auto found = find(scene);
        const auto wanted = undisturbed([this](Scene& other) { return find(other); });
        HOLDS(found && wanted && found->startPosition == wanted->startPosition);
        HOLDS(found->endPosition == wanted->endPosition);
        return;
      }
      case 3: {
        HOLDS(load(scene));
        const u64 got = digest_.value;
        HOLDS(undisturbed([this](Scene& other) { return load(other); }) && got == digest_.value);
        return;
      }
      case 6:
        if (outcome != Outcome::done) scene.stream->flush();
        return expectTags(scene, 0);
      default:
        return settleRecording(scene);
    }
  }

  void settleRecording(Scene& scene) {
    if (scene.stream->flush()) return expectTags(scene, 1);
    // The file couldn't be opened; nothing was recorded, and a new stream has a new try.
    const Bytes file = scene.bytes();
    HOLDS(file.size() <= std::max<std::size_t>(film_.size(), flv::kFirstTagPosition));
    HOLDS(std::equal(film_.begin(), film_.end(), file.begin()));
  }

  // The old file, and behind it what was accepted, in order; `lost` at most were dropped.
  void expectTags(Scene& scene, std::size_t lost) {
    const Bytes file = scene.bytes();
    std::size_t at = std::max<std::size_t>(film_.size(), flv::kFirstTagPosition), missing = 0;
    for (const Message& message : accepted_) {
      const Bytes tag = tagBytes(static_cast<u8>(message.type), message.time, message.data);
      const std::size_t compared =
          message.type == 18 ? flv::kTagHeaderSize : tag.size();  // The rest is brought up to date.
      if (file.size() >= at + tag.size() &&
          std::equal(tag.begin(), tag.begin() + static_cast<std::ptrdiff_t>(compared),
                     file.begin() + static_cast<std::ptrdiff_t>(at)))
        at += tag.size();
      else
        ++missing;
    }
    HOLDS(at == file.size() && missing <= lost);
  }

  const u32 road_;
  Bytes film_;
  std::vector<Message> more_, accepted_;
  u32 time_ = 0;
  std::size_t refused_ = 0;  // Calls of the sweep.
  Digest digest_;
  std::list<util::WarmBlock> warm_;
};

}  // namespace
}  // namespace orv::test

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
  orv::test::Choices choose(data, size);
  orv::test::Sweep(choose).run();
  return 0;
}
