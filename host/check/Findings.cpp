#include "host/check/Findings.h"

#include <fmt/format.h>

namespace orv::host {

namespace {

using enum Severity;

// In the order of the enumeration.
constexpr CodeInfo kCodes[] = {
    {"no-header", error, "no FLV header at the start"},
    {"header-version", error, "an FLV version other than 1"},
    {"header-size", warning, "the header claims a size other than 9"},
    {"header-flags", warning, "the header's flags do not match the tags"},
    {"first-size-field", warning, "the size field before the first tag is not 0"},
    {"no-tags", error, "no whole tag"},
    {"junk", error, "bytes that belong to no tag"},
    {"zeros", error, "zeros that belong to no tag"},
    {"damaged-tag", error, "a tag that is not whole"},
    {"second-header", error, "the header of another file, appended"},
    {"torn-tail", error, "the last tag is cut short"},
    {"junk-behind", error, "bytes behind the last tag"},
    {"size-field", error, "a trailing size that is not its tag's"},
    {"unknown-type", warning, "a tag of unknown type"},
    {"stream-id", warning, "a stream id other than 0"},
    {"empty-tag", note, "an audio or video tag without data"},
    {"encrypted", note, "encrypted tags"},
    {"aggregate", note, "aggregate tags, which few players know"},
    {"time-backward", error, "time goes back by more than a second"},
    {"time-step-back", warning, "audio or video goes back by up to a second"},
    {"time-jump", warning, "time jumps ahead by more than 10 seconds"},
    {"first-time", note, "the first time is not 0"},
    {"last-time", warning, "the last tag's time, taken for the duration, is not the latest"},
    {"gap", warning, "audio or video pauses for more than 2 seconds while the other goes on"},
    {"drift", warning, "audio and video start or end more than a second apart"},
    {"no-setup", error, "frames of a codec without its set-up record before them"},
    {"unknown-codec", warning, "a codec that FLV does not know"},
    {"codec-change", warning, "the codec changes inside the file"},
    {"no-key-frame", warning, "video that does not start with a key frame"},
    {"key-frame-distance", note, "more than 10 seconds between key frames"},
    {"no-metadata", warning, "no onMetaData among the first tags"},
    {"metadata-unreadable", warning, "an onMetaData that cannot be read whole"},
    {"metadata-wrong", warning, "an onMetaData that contradicts the tags"},
    {"index-beside", error, "an entry of the key-frame index that points at no key frame"},
};
static_assert(std::size(kCodes) == static_cast<std::size_t>(Code::indexBeside) + 1);

}  // namespace

const char* severityName(Severity severity) {
  return severity == error ? "error" : severity == warning ? "warning" : "note";
}

const CodeInfo& infoOf(Code code) {
  return kCodes[static_cast<std::size_t>(code)];
}

std::string codesText() {
  std::string text;
  for (const CodeInfo& code : kCodes) {
    text += fmt::format("  {:<20}{:<9}{}\n", code.text, severityName(code.severity), code.meaning);
  }
  return text;
}

void Findings::add(Code code, std::string text, std::optional<i64> position, std::optional<u32> time) {
  if (++counts_[code] <= kMostKept) kept_.push_back({code, position, time, std::move(text)});
}

u64 Findings::count(Code code) const {
  const auto found = counts_.find(code);
  return found == counts_.end() ? 0 : found->second;
}

u64 Findings::count(Severity severity) const {
  u64 sum = 0;
  for (const auto& [code, number] : counts_) {
    if (infoOf(code).severity == severity) sum += number;
  }
  return sum;
}

}  // namespace orv::host
