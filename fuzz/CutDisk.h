// A disk with one file, and what a power cut may leave of it.

#pragma once

#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "Choices.h"
#include "modules/streams/contract/IFileService.h"
#include "support/FileImage.h"

namespace orv::test {

// What was written but not synced may be there in any subset and any order, torn at 512 bytes; what isn't
// there shows what stood there before, or zeros. The file may end anywhere from where it did at the last sync
// to where it does now.
class CutDisk final : public IFileService {
 public:
  static constexpr std::size_t kSector = 512;

  // Before each write and each sync. The moment of the cut.
  std::function<void()> beforeChange;

  void sync() {
    if (beforeChange) beforeChange();
    durable_ = bytes_;
    versions_.clear();
  }

  Bytes afterCut(Choices& choose) const {
    Bytes out = durable_;
    if (bytes_.size() > out.size()) {
      const std::size_t grown = bytes_.size() - out.size();
      out.resize(out.size() + (choose.oneIn(2) ? grown : choose.number() % (grown + 1)));
    }
    for (const auto& [sector, versions] : versions_) {
      const std::size_t at = sector * kSector, chosen = choose.below(static_cast<u32>(versions.size() + 1));
      if (chosen == 0 || at >= out.size()) continue;
      const Bytes& content = versions[chosen - 1];
      std::copy_n(content.begin(), std::min(content.size(), out.size() - at),
                  out.begin() + static_cast<std::ptrdiff_t>(at));
    }
    return out;
  }

  const Bytes& bytes() const { return bytes_; }

  int open(const char*, int flags, int, int) override {
    if (flags == openflags::createTruncate) exists_ = true;
    return exists_ ? kDescriptor : -1;
  }
  int close(int, int) override { return 0; }
  int read(int, i64 position, void* data, u32 size) override {
    const auto at = static_cast<std::size_t>(position);
    if (at >= bytes_.size()) return 0;
    const std::size_t count = std::min<std::size_t>(size, bytes_.size() - at);
    std::memcpy(data, &bytes_[at], count);
    return static_cast<int>(count);
  }
  int write(int, i64 position, const void* data, u32 size) override {
    if (beforeChange) beforeChange();
    const auto at = static_cast<std::size_t>(position);
    if (size == 0) return 0;
    bytes_.resize(std::max(bytes_.size(), at + size));
    std::memcpy(&bytes_[at], data, size);
    for (std::size_t sector = at / kSector; sector <= (at + size - 1) / kSector; ++sector) {
      const auto from = bytes_.begin() + static_cast<std::ptrdiff_t>(sector * kSector);
      const auto length = std::min<std::ptrdiff_t>(kSector, bytes_.end() - from);
      versions_[sector].emplace_back(from, from + length);
    }
    ++time_;
    return static_cast<int>(size);
  }
  int fstat(int, FileStat* record, int) override { return stat("", record, 0); }
  int stat(const char*, FileStat* record, int) override {
    if (!exists_) return -1;
    *record = {};
    record->size = static_cast<i64>(bytes_.size());
    record->modificationTime = time_;
    return 0;
  }
  int unlink(const char*, int) override { return -1; }
  void mkdir(const char*) override {}

 private:
  static constexpr int kDescriptor = 1 << 20;

  bool exists_ = false;
  i64 time_ = 1;
  Bytes bytes_, durable_;
  std::map<std::size_t, std::vector<Bytes>> versions_;  // Of a sector, since the last sync; the latest last.
};

}  // namespace orv::test
