#include "modules/streams/flv/SearchWindow.h"

#include <algorithm>
#include <cstring>

#include "server/FLVTag.h"

namespace orv::flv {
namespace {

// A larger setting only makes the reads of a search larger up to here.
constexpr u32 kMaxReadSize = 0x100000;
// What a read at one place takes in around it: a size field and the tag header behind it, or in front of it.
constexpr u32 kMargin = 64;

// Looks at what the file can't serve, such as a size field that its end has cut.
constexpr u32 kMaxPlainReads = 64;

// The grid. The candidates of a search lie within 16 MiB, and the checks of each look at up to two tags of 16
// MiB on either side. All of that has a slot of its own: no page is read twice, and a search never holds more
// than 81 MiB, on the most hostile of files.
constexpr i64 kPageSize = 0x10000;
constexpr i64 kPageOverlap = 16;  // A tag header that starts in a page lies in it whole.
constexpr i64 kStride = kPageSize - kPageOverlap;
constexpr std::size_t kPages = 2048;
static_assert(kPages * kStride > 5 * (i64{kMaxTagDataSize} + kTagOverhead) + 2 * kPageSize);

std::size_t slotOf(i64 pageIndex) {
  return static_cast<std::size_t>(pageIndex) % kPages;
}

}  // namespace

SearchWindow::SearchWindow(autofilebuffer& file, IFileService* service, int fd, i64 origin, u32 readSize)
    : file_(file),
      service_(service),
      fd_(fd),
      origin_(origin),
      readSize_(std::clamp(readSize, 2 * kMargin, kMaxReadSize)),
      lastRead_(origin) {}

void SearchWindow::Run::load(autofilebuffer& file, int fd, i64 start, u32 size) {
  if (capacity_ < size) {
    orv::util::WarmBlocks::give(std::exchange(bytes_, nullptr));
    bytes_ = orv::util::WarmBlocks::take(size);
    capacity_ = size;
  }
  const PassThroughScope stay(file);
  view_ = {start, bytes_, file.readSome(fd, start, bytes_, size, autofilebuffer::centred)};
}

SearchWindow::View SearchWindow::view(i64 position) {
  if (!walked_.holds(position, kTagHeaderSize)) walked_ = viewAround(position);
  return walked_;
}

SearchWindow::View SearchWindow::viewAround(i64 position) {
  if (const View* known = find(position, kTagHeaderSize)) return *known;
  if (runCount_ != 0 || !pages_.empty()) {
    const u32 more = readSize_ / 2;
    return load(position - (more - kMargin), more, position);
  }
  // The first read takes in some of what lies behind the origin, for the checks of the frame that holds it.
  return load(position - (readSize_ - readSize_ / 4), readSize_, position);
}

i64 SearchWindow::skipUnreadable(i64 position) {
  if (!toldUnreadable_) {
    toldUnreadable_ = true;
    u8 bytes[kTagHeaderSize];
    plainBuffer().readOrReport(fd_, position, bytes, sizeof bytes, ORV_READ_HERE, autofilebuffer::centred);
  }
  enterGrid();
  const View here = page(position);
  if (here.holds(position, kTagHeaderSize)) return position + 1;
  return here.start + std::max<i64>(0, i64{here.size} + 1 - kTagHeaderSize);
}

void SearchWindow::prefetch(i64 position) const {
  const i64 index = position / kStride;
  const Page& page = pages_[slotOf(index)];
  if (page.index == index && page.run.view().holds(position, 1)) {
    __builtin_prefetch(page.run.view().at(position));
  }
}

u32 SearchWindow::read(i64 position, u8* data, u32 size, bool raise) {
  if (position >= 0) {
    const View* known = find(position, size);
    View loaded;
    if (!known) {
      const bool isBehind = position > lastRead_;
      loaded = load(isBehind ? position : position - (kMargin - kTagHeaderSize), kMargin, position);
      known = &loaded;
    }
    lastRead_ = position;
    if (known->holds(position, size)) {
      std::memcpy(data, known->at(position), size);
      return size;
    }
  }
  return readPlainly(position, data, size, raise);
}

const SearchWindow::View* SearchWindow::find(i64 position, u32 size) const {
  if (walked_.holds(position, size)) return &walked_;
  for (u32 i = runCount_; i-- > 0;) {
    if (runs_[i].view().holds(position, size)) return &runs_[i].view();
  }
  return nullptr;
}

// Reads a run, or, where that would be one too many, the page that holds `position`.
SearchWindow::View SearchWindow::load(i64 start, u32 size, i64 position) {
  if (runCount_ == kMaxRuns) enterGrid();
  if (!pages_.empty()) return page(position);
  const i64 missing = std::max<i64>(-start, 0);  // A run can't begin in front of the file.
  Run& run = runs_[runCount_++];
  run.load(file_, fd_, start + missing, static_cast<u32>(size - missing));
  return run.view();
}

void SearchWindow::enterGrid() {
  runCount_ = 0;
  pages_.resize(kPages);
}

SearchWindow::View SearchWindow::page(i64 position) {
  const i64 index = position / kStride;
  Page& slot = pages_[slotOf(index)];
  if (slot.index != index) {
    slot.run.load(file_, fd_, index * kStride, kPageSize);
    slot.index = index;
  }
  return slot.run.view();
}

// Damage can ask for any number of such places. Behind the first few of them the file has ended, or is not to
// be had: what stands there from then on is the end of no tag.
u32 SearchWindow::readPlainly(i64 position, u8* data, u32 size, bool raise) {
  if (plainReads_ == kMaxPlainReads) {
    std::memset(data, 0xFF, size);
    return size;
  }
  ++plainReads_;
  const PassThroughScope stay(file_);
  return BufferSource(plainBuffer(), fd_).read(position, data, size, raise);
}

autofilebuffer& SearchWindow::plainBuffer() {
  if (!plain_) {
    plain_.emplace(readSize_, service_, &file_);
    plain_->reset(fd_, origin_);
  }
  return *plain_;
}

}  // namespace orv::flv
