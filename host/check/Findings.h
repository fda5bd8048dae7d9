// What a check can find: each kind of finding with a code that stays the same from version to version.

#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/Types.h"

namespace orv::host {

enum class Severity { note, warning, error };
const char* severityName(Severity severity);

enum class Code {
  noHeader,
  headerVersion,
  headerSize,
  headerFlags,
  firstSizeField,
  noTags,
  junk,
  zeros,
  damagedTag,
  secondHeader,
  tornTail,
  junkBehind,
  sizeField,
  unknownType,
  streamId,
  emptyTag,
  encrypted,
  aggregate,
  timeBackward,
  timeStepBack,
  timeJump,
  firstTime,
  lastTime,
  gap,
  drift,
  noSetup,
  unknownCodec,
  codecChange,
  noKeyFrame,
  keyFrameDistance,
  noMetadata,
  metadataUnreadable,
  metadataWrong,
  indexBeside,
};

struct CodeInfo {
  const char* text;
  Severity severity;
  const char* meaning;
};
const CodeInfo& infoOf(Code code);
// All of them with their meanings, a line each: for help and manual.
std::string codesText();

struct Finding {
  Code code;
  std::optional<i64> position;
  std::optional<u32> time;
  std::string text;
};

class Findings {
 public:
  // Of one code, so many are kept; the others are counted.
  static constexpr u64 kMostKept = 100;

  void add(Code code, std::string text, std::optional<i64> position = {}, std::optional<u32> time = {});

  // In the order in which they were added.
  const std::vector<Finding>& kept() const { return kept_; }
  u64 count(Code code) const;
  u64 count(Severity severity) const;
  const std::map<Code, u64>& counts() const { return counts_; }

 private:
  std::vector<Finding> kept_;
  std::map<Code, u64> counts_;
};

}  // namespace orv::host
