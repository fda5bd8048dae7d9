#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "host/commands/Commands.h"
#include "host/files/FileSource.h"
#include "host/flv/FlvNames.h"
#include "host/flv/MetadataFacts.h"
#include "host/flv/Walker.h"
#include "host/module/FileSummary.h"
#include "host/text/Console.h"
#include "host/text/Printable.h"
#include "host/text/TimeText.h"

namespace orv::host {

namespace {

using Json = nlohmann::ordered_json;

constexpr char kTitle[] = "      POSITION  TIME              SIZE  TYPE     CODEC\n";

// What a damaged stretch is called.
const char* breakName(BreakKind kind) {
  switch (kind) {
    case BreakKind::junk:
      return "junk";
    case BreakKind::zeros:
      return "zeros";
    case BreakKind::damagedTag:
      return "damaged tag";
    case BreakKind::secondHeader:
      return "header of another file";
    case BreakKind::tornTail:
      break;
  }
  return "torn tail";
}

// What stands behind the codec: "key frame", "set-up", "shown 40 ms later", ...
std::string remarks(const MediaHead& head) {
  std::string text;
  if (head.isKeyFrame) text += ", key frame";
  if (head.packet != Packet::frames) text += fmt::format(", {}", packetName(head.packet));
  if (head.compositionTime != 0) text += fmt::format(", shown {:+} ms", head.compositionTime);
  return text;
}

std::string dataName(const Tag& tag) {
  const std::string name = Metadata::nameOf(tag);
  return name.empty() ? "unreadable" : printable(name);
}

std::string tagLine(const WalkedTag& walked) {
  const Tag& tag = walked.tag;
  const auto head = mediaHead(tag);
  std::string what = tag.isData() ? dataName(tag) : codecText(tag);
  if (head) what += remarks(*head);
  if (!isKnownType(tag.type)) what = fmt::format("type {}", tag.type);
  if (!walked.hasTrueSizeField()) what += ", wrong size behind";
  return fmt::format("{:>14}  {} {:>9}  {:<8} {}\n", walked.position, timeText(tag.time), tag.size,
                     tagTypeName(tag.type), what);
}

Json tagJson(const WalkedTag& walked) {
  const Tag& tag = walked.tag;
  Json json = {{"position", walked.position},
               {"time", tag.time},
               {"type", tag.type},
               {"kind", tagTypeName(tag.type)},
               {"size", tag.size}};
  if (tag.streamId) json["streamId"] = tag.streamId;
  if (walked.sizeField) json["sizeField"] = *walked.sizeField;
  if (tag.isEncrypted()) json["encrypted"] = true;
  if (tag.isData()) json["name"] = Metadata::nameOf(tag);
  const auto head = mediaHead(tag);
  if (!head) return json;
  json["codec"] = codecText(tag);
  json["codecId"] = head->codec ? Json(*head->codec) : Json(nullptr);
  json["packet"] = packetName(head->packet);
  if (head->isVideo) json["keyFrame"] = head->isKeyFrame;
  if (head->isVideo) json["compositionTime"] = head->compositionTime;
  return json;
}

class TagsRun {
 public:
  explicit TagsRun(const TagsOptions& options) : options_(options) {}

  ExitCode run() {
    const auto source = openSource(options_.file);
    Walker walker(*source, Payloads::fronts);
    if (!options_.json) print(kTitle);
    while (const auto step = walker.next()) {
      if (const auto* const tag = std::get_if<WalkedTag>(&*step)) {
        show(*tag);
      } else {
        show(std::get<Break>(*step));
      }
    }
    flushOutput();
    if (tags_ == 0) throw fileFault(source->name() + ": holds no whole tag");
    return ExitCode::good;
  }

 private:
  void show(const WalkedTag& tag) {
    ++tags_;
    isInside_ =
        (!options_.from || tag.tag.time >= *options_.from) && (!options_.to || tag.tag.time < *options_.to);
    if (isInside_) print(options_.json ? line(tagJson(tag)) : tagLine(tag));
  }
  // Together with the tags around it.
  void show(const Break& gap) {
    if (!isInside_ && (options_.from || options_.to)) return;
    const char* const name = breakName(gap.kind);
    const i64 size = gap.to - gap.from;
    print(options_.json ? line({{"position", gap.from}, {"break", name}, {"size", size}})
                        : fmt::format("{:>14}  {:<12} {:>9}  {}\n", gap.from, "", size, name));
  }
  static std::string line(const Json& json) {
    return printableJson(json.dump(-1, ' ', false, Json::error_handler_t::replace)) + "\n";
  }

  const TagsOptions& options_;
  u64 tags_ = 0;
  bool isInside_ = false;  // Between the times asked for.
};

}  // namespace

ExitCode runTags(const TagsOptions& options) {
  return TagsRun(options).run();
}

}  // namespace orv::host
