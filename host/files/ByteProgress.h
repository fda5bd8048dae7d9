// How far the reading of a file has come.

#pragma once

#include "host/files/ByteSource.h"
#include "host/text/Console.h"

namespace orv::host {

class ByteProgress {
 public:
  explicit ByteProgress(const ByteSource& source) : name_(source.name()), size_(source.size()) {}

  void show(i64 position) {
    if (!progress_.isDue()) return;
    progress_.showShare(position, size_, name_);
  }

 private:
  Progress progress_;
  const std::string name_;
  const i64 size_;
};

}  // namespace orv::host
