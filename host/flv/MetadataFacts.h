// What a file's "onMetaData" may truly say, and what it does say.

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/flv/StreamFacts.h"
#include "server/KTCommand.h"

namespace orv::host {

struct TrueValue {
  const char* key;
  double value;  // 0 or 1 for a flag.
  bool isFlag = false;
  double tolerance = 0;  // A claim that is off by no more agrees.
};

// What the tags say of the usual keys; `fileSize` where it is known. Times are in seconds.
std::vector<TrueValue> trueMetadata(const StreamFacts& facts, std::optional<i64> fileSize);

// An entry of the index that many players seek by.
struct KeyFrame {
  i64 position;
  double seconds;
};

// The content of an "onMetaData".
class Metadata {
 public:
  // None if `tag` is no data tag of that name that can be read.
  static std::optional<Metadata> read(const Tag& tag);

  // Of any data tag; "" if it has none that can be read.
  static std::string nameOf(const Tag& tag);

  bool isTorn() const { return command_->failed() || !values(); }
  // Null if there is no container behind the name.
  const KTDataArray* values() const { return command_->arg(0).asArray(); }
  u8 containerType() const { return static_cast<u8>(command_->arg(0).type()); }
  // Undefined where it isn't there.
  const KTData& find(const char* key) const;
  std::vector<KeyFrame> keyFrames() const;

 private:
  explicit Metadata(std::unique_ptr<KTCommand> command) : command_(std::move(command)) {}
  std::unique_ptr<KTCommand> command_;
};

}  // namespace orv::host
