// A file that any number of viewers play, through one read handle of the module. It is read to its end also
// where it has lost its name meanwhile.

#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "host/files/Descriptor.h"
#include "host/module/LostTags.h"
#include "host/module/PlayOut.h"
#include "host/module/SetupSearch.h"
#include "host/server/Piece.h"
#include "host/server/Request.h"

namespace orv::host {

// What loads came to that met damage.
struct LoadFaults {
  std::atomic<u64> damaged{0};    // Byte runs that couldn't be loaded whole.
  std::atomic<u64> recovered{0};  // Tags found behind damage all the same.
  std::atomic<u64> failed{0};     // Loads that ended a viewer's stream.
};

// Runs work on a thread that may block.
using Pool = std::function<void(std::function<void()>)>;

// Each piece is loaded once for all who want it, those that ask while it is being loaded included. Safe from
// any thread.
class SharedFile final : public PieceOwner, public std::enable_shared_from_this<SharedFile> {
 public:
  // What stands behind a place of the file.
  struct Next {
    PiecePtr piece;         // Null where the file ends for good,
    bool isFailed = false;  // or where what follows can't be had.
  };
  // Called on any thread, with no lock held; not once `owner` has gone, which it may do meanwhile.
  struct Ready {
    std::weak_ptr<void> owner;
    std::function<void(Next)> call;
  };
  // What a viewer is sent first, and where the pieces for it start.
  struct Start {
    std::vector<u8> head;
    PlayStart place;
    std::optional<u32> end;
  };
  struct Surroundings {
    Pool pool;
    std::function<Stream(const std::string& file)> open;    // Throws Failure.
    std::function<bool(const struct stat& status)> isLive;  // Whether more may come.
    // Where its codec set-ups stand, if it is being recorded here.
    std::function<std::optional<SetupList>(const FileIdentity&)> setups;
    LoadFaults& faults;
  };

  // Throws Failure.
  SharedFile(std::string file, u64 number, PieceCache& cache, Surroundings around);
  ~SharedFile() override;

  // These block: for the pool's threads. Throw Failure.
  Start start(std::optional<ViewTime> from, std::optional<ViewTime> to);
  template <class Work>
  auto with(Work work) {
    const std::lock_guard lock(streamMutex_);
    return work(opened_->stream);
  }
  // Whether another file has taken its name, or it was cut.
  bool isReplaced();

  // Asks for what follows `position`. At the end of a live file it waits for more.
  void next(i64 position, Ready ready);
  // Loads what follows `position` for whoever asks for it next.
  void loadAhead(i64 position);
  // The file has grown, or is live no longer.
  void wake();
  bool hasWaiting() const;
  void onFreed(i64 position) override;

 private:
  struct Opened {
    Stream stream;
    SetupSearch setups{stream};
  };
  struct Loaded {
    PiecePtr piece;
    i64 end;  // Of the file, as far as it is known.
  };
  FileIdentity identity() const;
  bool isNamed() const;
  template <class Work>
  auto read(Work work);
  Start findStart(std::optional<ViewTime> from, std::optional<ViewTime> to);
  void loadRun(const SegmentBounds& bounds, Piece& piece);
  void recover(i64 from, i64 to, const DeliveredTags& delivered, Piece& piece);
  void fetch(i64 position);
  Loaded loadFrom(i64 position);
  PiecePtr load(i64 position);

  const std::string name_;
  const Descriptor file_;
  const u64 number_;
  std::atomic<bool> isCut_{false};
  PieceCache& cache_;
  const Surroundings around_;
  std::mutex streamMutex_;
  // Under streamMutex_: under its name, or, once another file has that, under the descriptor's.
  std::unique_ptr<Opened> opened_;
  bool hasMoved_ = false;     // Under streamMutex_.
  i64 end_ = 0;               // Under streamMutex_: up to here the file is known to reach.
  i64 toldTo_ = 0;            // Under streamMutex_: damage before it has been reported.
  std::size_t overhead_ = 0;  // Under streamMutex_.
  mutable std::mutex mutex_;
  // Under mutex_.
  std::map<i64, std::vector<Ready>> wanted_;   // Being loaded.
  std::map<i64, std::vector<Ready>> waiting_;  // For the file to grow.
  u64 wakes_ = 0;
};

}  // namespace orv::host
