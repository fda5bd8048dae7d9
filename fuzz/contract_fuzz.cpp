// The whole contract, as a host of many minds would use it: the input decides settings, a file, and a
// sequence of calls on several handles of that file, while the file is changed from outside and the host
// itself fails.
//
// Held against it: what is delivered stands in the file; a segment holds what was asked for; a reader changes
// nothing; a flush changes nothing but its own tail, the flags byte and the payload of one "onMetaData"; what
// was flushed into a sound file is found by any player; every call stays within a budget of host calls, bytes
// and memory; no descriptor is left.

#include <array>
#include <cstring>
#include <optional>
#include <utility>

#include "Budget.h"
#include "RandomFilm.h"
#include "modules/streams/flv/FLVAdaptor.h"
#include "support/MemoryHost.h"
#include "support/MirrorConn.h"
#include "support/Module.h"
#include "util/KTThrowable.h"

namespace orv::test {
namespace {

constexpr char kName[] = "f", kFile[] = "f.flv";
constexpr i64 kMostFile = 3'000'000;
constexpr u32 kMostCalls = 80;

// The module prints short reads to standard output.
const bool kQuiet = std::freopen("/dev/null", "w", stdout) != nullptr;

class Contexts final : public IContextHolder, public IAllContextHolder {
 public:
  std::size_t bytes = 0;
  void onContext(unsigned short, const void*, u32 size, u32, i64, u32, u32) override { bytes += size; }
  void onAllContexts(const void*, u32 size) override { bytes += size; }
};

// What is known of a handle's recording.
enum class Desk {
  closed,   // Not recording.
  open,     // `staged` waits for the flush.
  broken,   // Recording, but without a file: a flush must fail and leave everything alone.
  unknown,  // A fault came in between.
};

struct Handle {
  Handle(IQVStreamAdaptor& adaptor, Stream::Mode mode, const KTPtr<MirrorConn>& conn)
      : stream(adaptor, kName, mode, conn.get()), mirror(conn) {}

  Stream stream;
  KTPtr<MirrorConn> mirror;
  bool mirrorIsExact = false;
  u32 epoch = ~0u;       // Of the file, when this handle last looked at all of it.
  bool strayed = false;  // Has flushed into a file that isn't the one of this name any more.
  std::optional<SegmentBounds> found;

  Desk desk = Desk::closed;
  const MemoryHost::File* target = nullptr;  // The file that is recorded into, though its name may be gone.
  std::vector<Message> messages;             // Staged,
  Bytes staged;                              // and as they will stand in the file.
};

class Session {
 public:
  explicit Session(Choices& choose) : choose_(choose) {
    host_.protectsFiles = true;       // A stat that fails must not cost a file.
    host_.firstDescriptor = 1 << 20;  // None that this process has: copies for late mirrors can't be read.
    configure();
    adaptor_.emplace(&host_);
    if (choose.oneIn(2)) host_.put(kFile, randomFilm(choose));
  }

  void run() {
    for (u32 calls = 0; calls < kMostCalls && !choose_.empty(); ++calls) {
      arm();
      step(handles_[choose_.below(3)]);
      if (!faultStays_) host_.failCall(0);
      HOLDS(host_.misuses() == 0);
      checkDescriptors();
    }
    host_.failCall(0);
    for (auto& slot : handles_) slot.reset();
    HOLDS(host_.openDescriptors() == 0);
    audit();
    HOLDS(host_.openDescriptors() == 0 && host_.misuses() == 0);
  }

 private:
  void configure() {
    auto& settings = host_.settings;
    const u8 bits = choose_.byte();
    if (bits & 1) settings["PlayIncompleteFLVs"] = "false";
    if (bits & 2) settings["RetryCorruptedFLVs"] = "1";
    settings["AutoBufferReadSize"] = bits & 4 ? "1024" : "60000";
    if (bits & 8) settings["MaxFrameScan"] = settings["MaxBackFrameScan"] = "131072";
    settings["EnableAggMsgs"] = bits & 16 ? "true" : "false";
    if (bits & 32) settings["MaxAggMsgSize"] = "5000";
  }

  void arm() {
    if (faultStays_ && choose_.oneIn(4)) host_.failCall(0), faultStays_ = false;
    if (faultStays_ || !choose_.oneIn(8)) return;
    const u8 bits = choose_.byte();
    faultStays_ = (bits & 6) == 6;
    host_.failCall(1 + choose_.below(24), bits & 1 ? Fault::fallsShort : Fault::fails, {}, faultStays_);
  }

  bool healthy() const { return !faultStays_ && !host_.faultFired(); }
  Bytes bytes() { return host_.exists(kFile) ? host_.file(kFile).image.bytes() : Bytes{}; }
  i64 size() { return host_.exists(kFile) ? host_.file(kFile).image.size() : 0; }
  const MemoryHost::File* target() { return host_.exists(kFile) ? &host_.file(kFile) : nullptr; }

  void step(std::optional<Handle>& slot) {
    const u8 choice = choose_.byte();
    if (!slot || choice % 32 == 31) return open(slot);
    Handle& handle = *slot;
    switch (choice % 32) {
      case 0:
        return close(slot);
      case 1:
      case 2:
        return growFile();
      case 3:
        return changeFile();
      case 4:
        return replaceFile();
      case 5:
        return erase(handle);
      case 6:
        return attachMirror(handle);
      case 7:
      case 8:
      case 9:
        return query(handle);
      case 10:
        return contexts(handle);
      case 11:
      case 12:
      case 13:
        return findTime(handle);
      case 14:
      case 15:
      case 16:
        return findPosition(handle);
      case 17:
      case 18:
      case 19:
        return load(handle);
      case 20:
      case 21:
      case 22:
        return flush(handle);
      case 23:
        return audit();
      default:
        return record(handle);
    }
  }

  // --- what a player does

  // A call that only reads: within its budget, and the file is left alone.
  template <class Call>
  auto reading(i64 bytesInPlay, Call&& call) {
    host_.clearCalls();
    Budget budget(host_, bytesInPlay);
    const auto result = call();
    budget.check();
    for (const Op op : {Op::write, Op::unlink, Op::mkdir}) HOLDS(host_.count(op) == 0);
    return result;
  }

  void query(Handle& handle) {
    Stream& stream = handle.stream;
    const i64 answer = reading(size(), [&] { return stream.size(); });
    HOLDS(answer >= -1);  // What a look that couldn't ask for the size leaves behind.
    if (healthy() && answer > 0 && answer <= size()) handle.epoch = epoch_;
    reading(size(), [&] { return stream.duration(); });
    HOLDS(reading(size(), [&] { return stream.endPosition(); }) >= 0);
    stream.type();
    HOLDS(adaptor_->getMemoryOverhead(stream.handle) < 2'000'000'000);
    reading(size(), [&] { return stream.metadata().size(); });
    u32 room = choose_.byte();
    u8 value[256];
    const u32 before = room;
    if (adaptor_->getAttribute(stream.handle, AttrMetaData, value, room))
      HOLDS(room <= before);
    else
      HOLDS(room == 0);
  }

  void contexts(Handle& handle) {
    Contexts got;
    const bool any =
        reading(size(), [&] { return adaptor_->getAllMediaContexts(handle.stream.handle, &got); });
    HOLDS(any || got.bytes == 0);
    const auto type = static_cast<ContextType_t>(choose_.below(3));
    reading(size(), [&] {
      return adaptor_->getMediaContexts(handle.stream.handle, type, static_cast<i64>(choose_.number()) - 5,
                                        &got);
    });
  }

  void findTime(Handle& handle) {
    const u32 time = choose_.oneIn(4) ? choose_.number() : choose_.below(300) * 20;
    const auto find = [&] { return handle.stream.atTime(time); };
    handle.found = reading(size(), find);
    if (!handle.found) return;
    const auto [start, end, from, to] = *handle.found;
    HOLDS(start >= 0 && start <= end);
    HOLDS(time == from || (time > from && time < to));
    expectAgain(*handle.found, find);
  }

  void findPosition(Handle& handle) {
    const i64 position =
        choose_.oneIn(4) ? i64{choose_.number()} << choose_.below(31) : choose_.number() % (size() + 20);
    const auto find = [&] { return handle.stream.atPosition(position); };
    handle.found = reading(size(), find);
    if (!handle.found) return;
    const auto [start, end, from, to] = *handle.found;
    HOLDS(start >= 0 && start <= end && start <= position);
    // Behind damage, the segment in front of it is all that there is.
    if (position <= end) expectAgain(*handle.found, find);
  }

  // The index answers what it answered, and leaves the file alone.
  template <class Find>
  void expectAgain(const SegmentBounds& found, Find&& find) {
    if (!healthy()) return;
    host_.clearCalls();
    const auto again = find();
    HOLDS(again && std::memcmp(&*again, &found, sizeof found) == 0 && host_.count(Op::read) == 0);
  }

  void load(Handle& handle) {
    SegmentBounds bounds{0, size(), 0, 0};
    if (handle.found && !choose_.oneIn(8))
      bounds = *handle.found;
    else if (choose_.oneIn(2))
      bounds = {choose_.number() % (size() + 1), static_cast<i64>(choose_.number()), 0, 0};
    bool good = false;
    const auto tags = unpack(reading(bounds.endPosition - bounds.startPosition + 1,
                                     [&] { return handle.stream.load(bounds, &good); }));
    if (handle.epoch != epoch_ || handle.strayed)
      return;  // What it has in memory may be from before the last change.
    const Bytes file = bytes();
    for (const Message& tag : tags) HOLDS(stands(file, tag));
  }

  static bool stands(const Bytes& file, const Message& tag) {
    const Bytes wanted = tagBytes(static_cast<u8>(tag.type), tag.time, tag.data);
    const auto header = wanted.begin() + 8;  // The stream id behind it isn't delivered.
    for (auto at = file.begin();; ++at) {
      at = std::search(at, file.end(), wanted.begin(), header);
      if (at == file.end() ||
          file.end() - at < static_cast<std::ptrdiff_t>(flv::kTagHeaderSize + tag.data.size()))
        return false;
      if (std::equal(tag.data.begin(), tag.data.end(), at + flv::kTagHeaderSize)) return true;
    }
  }

  // --- what changes the file from outside

  void growFile() {
    if (!host_.exists(kFile) || size() > kMostFile) return;
    const Message message = randomMessage(choose_, choose_.below(300) * 20);
    Bytes more = tagBytes(static_cast<u8>(message.type), message.time, message.data);
    if (choose_.oneIn(4)) more.resize(choose_.number() % (more.size() + 1));
    host_.append(kFile, more);
    grown();
  }

  void changeFile() {
    if (!host_.exists(kFile) || size() == 0) return;
    const i64 at = choose_.number() % size();
    if (choose_.oneIn(2))
      host_.cut(kFile, at);
    else
      host_.overwrite(kFile, at, Bytes(1 + choose_.below(20), choose_.byte()));
    changed();
  }

  void replaceFile() {
    host_.remove(kFile);
    if (!choose_.oneIn(8)) host_.put(kFile, randomFilm(choose_));
    changed();
  }

  void changed() {
    ++epoch_;
    grown();
  }

  void grown() {
    recorded_.reset();
    for (auto& slot : handles_)
      if (slot) slot->mirrorIsExact = false;
  }

  // --- what a recorder does

  void open(std::optional<Handle>& slot) {
    slot.reset();
    const bool toRecord = choose_.oneIn(2);
    KTPtr<MirrorConn> mirror;
    if (choose_.oneIn(4)) mirror = new MirrorConn;
    const Bytes before = bytes();
    const bool existed = host_.exists(kFile);
    host_.clearCalls();
    Budget budget(host_, size());
    Handle& handle = slot.emplace(*adaptor_, toRecord ? Stream::record : Stream::play, mirror);
    budget.check();
    HOLDS(toRecord || host_.count(Op::write) == 0);
    noteNewFile(handle, before, existed);
    if (!handle.stream) return slot.reset();
    if (healthy()) handle.epoch = epoch_;
    if (toRecord) begin(handle);
  }

  void close(std::optional<Handle>& slot) {
    host_.clearCalls();
    slot.reset();
    HOLDS(host_.count(Op::write) == 0);
  }

  // The only bytes that a recording writes before a flush are a new file's header.
  void noteNewFile(Handle& handle, const Bytes& before, bool existed) {
    const Bytes after = bytes();
    if (after == before) return;
    HOLDS(before.empty() && after.size() <= flv::kFirstTagPosition);
    handle.mirrorIsExact = handle.mirror && !existed && healthy();
    recorded_.reset();
    if (healthy() && after.size() == flv::kFirstTagPosition) recorded_.emplace();
  }

  void begin(Handle& handle) {
    handle.desk = healthy() ? Desk::open : Desk::unknown;
    handle.target = target();
    handle.staged.clear();
    handle.messages.clear();
  }

  void record(Handle& handle) {
    if (size() + static_cast<i64>(handle.staged.size()) > kMostFile) return;
    const Message message = randomMessage(choose_, lastTime_);
    lastTime_ = message.time;
    const Bytes before = bytes();
    const bool existed = host_.exists(kFile);
    host_.clearCalls();
    Budget budget(host_, size() + 2 * static_cast<i64>(handle.staged.size() + message.data.size()));
    bool taken = false, thrown = false;
    try {
      taken = handle.stream.stage(message.type, message.time, message.data);
    } catch (const KTBreakConnection&) {
      thrown = true;
      HOLDS(message.type == 18 || message.type == 15);
    }
    budget.check();
    noteNewFile(handle, before, existed);
    if (handle.desk == Desk::closed) {
      begin(handle);
      if (!taken && !thrown) handle.desk = healthy() ? Desk::broken : Desk::unknown;
    }
    if (!healthy()) handle.desk = Desk::unknown;
    if (taken && !isRefused(message)) {
      const Bytes tag = tagBytes(static_cast<u8>(message.type), message.time, message.data);
      handle.staged.insert(handle.staged.end(), tag.begin(), tag.end());
      handle.messages.push_back(message);
    }
  }

  void flush(Handle& handle) {
    const Bytes before = bytes();
    const bool targeted = handle.target == target();
    host_.clearCalls();
    Budget budget(host_, static_cast<i64>(before.size() + handle.staged.size()));
    const auto flushed = handle.stream.flush();
    budget.check();
    const Bytes after = bytes();
    const bool known = healthy() && handle.desk != Desk::unknown;
    if (known && (handle.desk != Desk::open || !targeted)) HOLDS(after == before);
    if (known && handle.desk != Desk::open) HOLDS(!flushed);
    if (known && handle.desk == Desk::open && targeted)
      checkFlush(handle, before, after, flushed.has_value());
    if (!known) checkBroken(before, after);
    handle.strayed |= !targeted;
    if (after != before) {
      ++epoch_;  // The metadata may be new.
      for (auto& slot : handles_)
        if (slot && &*slot != &handle) slot->mirrorIsExact = false;
    }
    if (flushed || !known) recordedBy(handle, flushed && known && targeted, before != after);
    if (!healthy()) handle.desk = Desk::unknown;
    if (flushed) handle.desk = Desk::closed, handle.staged.clear(), handle.messages.clear();
    if (flushed && known && targeted) handle.epoch = epoch_;
  }

  void checkFlush(Handle& handle, Bytes before, const Bytes& after, bool flushed) {
    const std::size_t old = before.size();
    before.insert(before.end(), handle.staged.begin(), handle.staged.end());
    before.resize(
        std::max<std::size_t>(before.size(), flv::kTypeFlagsPosition + 1));  // The flags byte itself.
    HOLDS(after.size() == before.size());
    expectOnlyMetadataDiffers(before, after);
    HOLDS(flushed || old < flv::kFirstTagPosition || !recorded_);
    if (handle.mirrorIsExact) HOLDS(handle.mirror->files[kFile].bytes() == after);
  }

  // Whatever went wrong, nothing of the old file is lost.
  static void checkBroken(const Bytes& before, const Bytes& after) {
    HOLDS(after.size() >= before.size());
    expectOnlyMetadataDiffers(
        before, Bytes(after.begin(), after.begin() + static_cast<std::ptrdiff_t>(before.size())));
  }

  // Apart from the flags byte, which a flush may change too.
  static void expectOnlyMetadataDiffers(const Bytes& before, const Bytes& after) {
    const auto differs = [&](std::size_t i) { return before[i] != after[i] && i != flv::kTypeFlagsPosition; };
    std::size_t first = 0, last = before.size();
    while (first < before.size() && !differs(first)) ++first;
    if (first == before.size()) return;
    while (!differs(last - 1)) --last;
    const Bytes name = textOf("onMetaData");
    const auto end = before.begin() + static_cast<std::ptrdiff_t>(first);
    const auto found = std::find_end(before.begin(), end, name.begin(), name.end());
    HOLDS(found != end && found - before.begin() >= 18);
    auto payload = static_cast<std::size_t>(found - before.begin()) - 3;
    if (before[payload] != 2) --payload;
    const flv::TagHeader tag{&before[payload - flv::kTagHeaderSize]};
    HOLDS((tag.typeByte() & 0x5F) == 18 || (tag.typeByte() & 0x5F) == 15);
    HOLDS(last <= payload + tag.dataSize());
  }

  void erase(Handle& handle) {
    const bool erased = adaptor_->erase(handle.stream.handle);
    if (healthy()) HOLDS(!erased || !host_.exists(kFile));
    if (handle.desk == Desk::open) handle.desk = Desk::broken;
    if (!healthy()) handle.desk = Desk::unknown;
    changed();
  }

  void attachMirror(Handle& handle) {
    KTPtr<MirrorConn> late(new MirrorConn);
    adaptor_->setUserData(handle.stream.handle, late.get());
    if (!healthy()) handle.desk = Desk::unknown;
    // Closed and opened again by name, which may be another file's by now, or nobody's.
    if (handle.desk == Desk::open && !handle.mirror) {
      if (!host_.exists(kFile)) handle.desk = Desk::broken;
      handle.target = target();
    }
    if (!handle.mirror) handle.mirror = late;
  }

  // --- a file that nobody but healthy recordings wrote: any player finds all of it

  void recordedBy(Handle& handle, bool whole, bool changed) {
    if (!recorded_ || (!whole && !changed)) return;
    if (!whole) return recorded_.reset();
    const auto& more = handle.messages;
    recorded_->insert(recorded_->end(), more.begin(), more.end());
  }

  void audit() {
    if (!recorded_ || recorded_->empty() || faultStays_) return;
    u32 last = 0;
    for (const Message& message : *recorded_) {
      const bool isFrame = std::string_view("\x08\x09\x0F\x11\x12\x14\x28\x29\x2F\x31\x32\x34")
                               .find(static_cast<char>(message.type)) != std::string_view::npos;
      if (!isFrame || message.time < last) return;
      last = message.time;
    }
    host_.failCall(0);
    const auto settings = std::exchange(host_.settings, {{"EnableAggMsgs", "false"}});
    flv::FLVAdaptor adaptor(&host_);
    host_.settings = settings;
    Stream player(adaptor, kName);
    HOLDS(player && player.size() == size() && player.duration() == last);
    std::vector<Message> found;
    i64 next = 0;
    for (const SegmentBounds& bounds : player.walk()) {
      HOLDS(bounds.startPosition == next);
      next = bounds.endPosition + 1;
      for (Message& message : player.load(bounds)) found.push_back(std::move(message));
    }
    HOLDS(next == size());
    // Head records are kept aside, and their bytes may be brought up to date.
    const auto aside = [](const Message& message) {
      return message.time == 0 &&
             (message.type == 18 || message.type == 15 || message.type == 50 || message.type == 47);
    };
    const auto dropped = [&](const Message& message) {
      return aside(message) ||
             ((message.type & 0x5F) == 9 && !message.data.empty() && message.data[0] >> 4 == 0);
    };
    std::vector<Message> wanted = *recorded_;
    std::erase_if(wanted, dropped);
    std::erase_if(found, aside);
    HOLDS(found == wanted);
  }

  void checkDescriptors() const {
    u32 recorders = 0;
    for (const auto& slot : handles_) recorders += slot && slot->desk != Desk::closed;
    HOLDS(host_.openDescriptors() <= recorders);
  }

  Choices& choose_;
  MemoryHost host_;
  std::optional<flv::FLVAdaptor> adaptor_;
  std::array<std::optional<Handle>, 3> handles_;
  std::optional<std::vector<Message>> recorded_;
  u32 epoch_ = 0;  // Grows with each change but growth.
  u32 lastTime_ = 0;
  bool faultStays_ = false;
};

}  // namespace
}  // namespace orv::test

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
  orv::test::Choices choose(data, size);
  orv::test::Session(choose).run();
  return 0;
}
