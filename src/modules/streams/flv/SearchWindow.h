// The bytes around a frame search.
//
// A search walks back byte by byte, and the checks of a candidate look at its neighbours, which may lie far
// away. An honest file needs a few small reads, and they are placed where its tags want them. Hostile bytes
// may ask for any place in any order: after those few reads the file is read in pages of a fixed grid, each
// of them once. What the file can't serve (its end, a disk that fails) is read through a plain search buffer,
// and ends as such a read ends.

#pragma once

#include <array>
#include <optional>
#include <utility>
#include <vector>

#include "modules/streams/flv/FrameSource.h"
#include "util/WarmBlocks.h"

namespace orv::flv {

class SearchWindow : public FrameSource {
 public:
  // Bytes of the file in a row, from `start`.
  struct View {
    i64 start = 0;
    const u8* bytes = nullptr;
    u32 size = 0;

    bool holds(i64 position, u32 count) const {
      return position >= start && count <= size && position - start <= size - count;
    }
    const u8* at(i64 position) const { return bytes + (position - start); }
  };

  // A search that walks back from `origin` and reads `readSize` bytes at a time, through `file`, whose block
  // stays in place. Borrows the file and the service.
  SearchWindow(autofilebuffer& file, IFileService* service, int fd, i64 origin, u32 readSize);

  // Bytes at and below `position`, to walk down in; perhaps not even `position`'s own. Good as long as the
  // window.
  View view(i64 position);
  // The file doesn't give the bytes of a candidate at `position`: answers the lowest of the candidates below
  // for which that holds in a row, without asking for each; `position` + 1 if it does give them after all.
  // The first time, the failure is reported as any short read is.
  i64 skipUnreadable(i64 position);
  // Whether the few reads are used up.
  bool isInGrid() const { return !pages_.empty(); }
  // Brings the byte at `position` near, if its page is there. Only in the grid.
  void prefetch(i64 position) const;
  // A look at the neighbours of a candidate.
  u32 read(i64 position, u8* data, u32 size, bool raise) override;

 private:
  class Run {
   public:
    Run() = default;
    ~Run() { orv::util::WarmBlocks::give(bytes_); }
    Run(Run&& other) noexcept
        : bytes_(std::exchange(other.bytes_, nullptr)), capacity_(other.capacity_), view_(other.view_) {}
    Run& operator=(Run&&) = delete;

    // Reads what the file has of [start, start + size).
    void load(autofilebuffer& file, int fd, i64 start, u32 size);
    const View& view() const { return view_; }

   private:
    u8* bytes_ = nullptr;  // A warm block.
    u32 capacity_ = 0;
    View view_;
  };
  struct Page {
    i64 index = -1;
    Run run;
  };
  static constexpr u32 kMaxRuns = 16;

  View viewAround(i64 position);
  const View* find(i64 position, u32 size) const;
  View load(i64 start, u32 size, i64 position);
  void enterGrid();
  View page(i64 position);
  u32 readPlainly(i64 position, u8* data, u32 size, bool raise);
  autofilebuffer& plainBuffer();

  autofilebuffer& file_;
  IFileService* service_;
  int fd_;
  i64 origin_;
  u32 readSize_;
  i64 lastRead_;                    // Where the checks looked last.
  View walked_;                     // What `view` gave last: most looks of the checks fall into it.
  std::array<Run, kMaxRuns> runs_;  // The few reads, in the order of their need.
  u32 runCount_ = 0;
  std::vector<Page> pages_;  // By index, modulo the size; empty while runs serve.
  std::optional<autofilebuffer> plain_;
  u32 plainReads_ = 0;
  bool toldUnreadable_ = false;
};

}  // namespace orv::flv
