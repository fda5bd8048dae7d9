#include "host/module/LostTags.h"

#include <variant>

#include "host/files/ByteSource.h"
#include "host/files/ReadOnlyFile.h"
#include "host/flv/Walker.h"

namespace orv::host {

namespace {

// A file from a position on.
class Slice final : public ByteSource {
 public:
  Slice(const std::string& name, i64 from) : name_(name), from_(from), file_(name) {}

  const std::string& name() const override { return name_; }
  i64 size() const override { return -1; }
  std::size_t read(i64 position, u8* out, std::size_t size) override {
    return file_.read(from_ + position, out, size);
  }

 private:
  const std::string name_;
  const i64 from_;
  const ReadOnlyFile file_;
};

}  // namespace

u64 LostTags::load(const DeliveredTags& delivered, const Handler& handler) {
  std::map<DeliveredTags::Key, u64> counts;
  for (const DeliveredTags::Key& key : delivered.keys_) ++counts[key];
  Slice slice(stream_.name(), from_);
  Walker walker(slice);
  u64 found = 0;
  while (const auto step = walker.next()) {
    const auto* const walked = std::get_if<WalkedTag>(&*step);
    const i64 position = from_ + (walked ? walked->position : std::get<Break>(*step).from);
    if (position >= to_) break;
    if (!walked) continue;
    const auto place = counts.find(DeliveredTags::keyOf(walked->tag));
    if (place != counts.end() && place->second > 0) {
      --place->second;
      continue;
    }
    const SegmentBounds bounds{position, from_ + walked->dataEnd() + flv::kSizeFieldSize - 1,
                               walked->tag.time, walked->tag.time};
    stream_.load(bounds, [&](const Message& message) {
      ++found;
      handler(bounds, message);
    });
  }
  return found;
}

}  // namespace orv::host
