// A run of a file's tags in memory, ready to be sent, and the cache of them that all viewers share.

#pragma once

#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "host/flv/Tags.h"

namespace orv::host {

// The tags as an FLV stream has them, each with its true trailing size. Never changed once it is shared.
struct Piece {
  struct Mark {
    std::size_t offset;  // Of the tag in `bytes`.
    u32 time;
  };
  std::vector<u8> bytes;
  std::vector<Mark> marks;
  i64 next = 0;  // The place in the file behind it.

  void add(const Tag& tag);
  std::size_t memory() const { return sizeof *this + bytes.capacity() + marks.capacity() * sizeof(Mark); }
};
using PiecePtr = std::shared_ptr<const Piece>;

// A file that pieces are of.
class PieceOwner {
 public:
  virtual ~PieceOwner() = default;
  // Its piece at `position` has left the cache. Called on any thread, with no lock of the cache held.
  virtual void onFreed(i64 position) = 0;
};

// Keeps what was used last, within a budget for pieces and what the module holds for their files together.
// Safe from any thread.
class PieceCache {
 public:
  explicit PieceCache(std::size_t budget) : budget_(budget) {}

  // A file, numbered by whoever opened it, and a place in it.
  using Key = std::pair<u64, i64>;
  PiecePtr find(const Key& key);
  bool holds(const Key& key) const;  // Counts as no use.
  // `overhead`: bytes that the module holds for the file by now.
  void keep(const Key& key, PiecePtr piece, const std::weak_ptr<PieceOwner>& owner, std::size_t overhead);
  // Drops all of a file. Returns where its pieces were: its owner isn't called.
  std::vector<i64> forget(u64 file);

  std::size_t memory() const;    // Of the pieces.
  std::size_t overhead() const;  // Of the files.
  u64 hits() const;
  u64 misses() const;

 private:
  struct Entry {
    PiecePtr piece;
    std::weak_ptr<PieceOwner> owner;
    std::list<Key>::iterator age;
  };
  void drop(std::map<Key, Entry>::iterator entry);

  const std::size_t budget_;
  mutable std::mutex mutex_;
  // Under mutex_.
  std::map<Key, Entry> entries_;
  std::list<Key> ages_;  // The one used last in front.
  std::map<u64, std::size_t> overheads_;
  std::size_t memory_ = 0;
  std::size_t overhead_ = 0;
  u64 hits_ = 0;
  u64 misses_ = 0;
};

}  // namespace orv::host
