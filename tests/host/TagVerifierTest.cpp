#include "host/module/TagVerifier.h"

#include <gtest/gtest.h>

#include "Movie.h"

namespace orv::host {
namespace {

using namespace test;

using Sent = orv::test::Message;

const Bytes kEmptyFrame{0x02, 5};  // A frame type of 0: never delivered.

class TagVerifierTest : public testing::Test {
 protected:
  // The faults found if `sent` is what a load of the file delivers.
  u64 faults(const TagList& sent) {
    TagVerifier verifier(stream);
    verifier.beginSegment({0, file.size() - 1, 0, 31});
    for (const Sent& s : sent) {
      verifier.check({s.type, s.time, s.data.data(), static_cast<u32>(s.data.size())});
    }
    verifier.endSegment();
    verifier.endFile();
    return verifier.faults();
  }
  Sent tag(std::size_t i) const { return tagOf(file, i); }

  TempDir dir;
  FlvBuilder file =
      FlvBuilder().tag(8, 0, 30).tag(9, 10, 40).tag(9, 20, kEmptyFrame).tag(8, 0, 50).tag(9, 30, 60);
  Session session{{FLV_MODULE_PATH, {}, false}};
  Stream stream = session.open(dir.file("f.flv", file.bytes()));
};

TEST_F(TagVerifierTest, takesWhatTheModuleMayDeliver) {
  const Bytes joined = join(tagBytes(9, 10, tag(1).data), tagBytes(9, 30, tag(4).data));
  Bytes unfinished = joined;  // The last size field of an aggregate is undefined.
  unfinished.back() ^= 1;
  EXPECT_EQ(faults({tag(0), tag(1), tag(3), tag(4)}), 0u);
  EXPECT_EQ(faults({tag(0), tag(3), {22, 10, joined}}), 0u);  // A time of 0 overtakes.
  EXPECT_EQ(faults({tag(0), tag(3), {22, 10, unfinished}}), 0u);
}

TEST_F(TagVerifierTest, findsEachWayOfDeliveringWrongly) {
  Sent changed = tag(4), late = tag(4), retyped = tag(4), cut = tag(4);
  changed.data[59] ^= 1;
  ++late.time;
  retyped.type = 8;
  cut.data.pop_back();
  Bytes entry = tagBytes(9, 30, tag(4).data);
  entry[10] = 1;  // The stream id.
  const struct {
    const char* name;
    TagList sent;
  } kWrong[] = {
      {"a changed byte", {tag(0), tag(1), tag(3), changed}},
      {"another time", {tag(0), tag(1), tag(3), late}},
      {"another type", {tag(0), tag(1), tag(3), retyped}},
      {"a byte less", {tag(0), tag(1), tag(3), cut}},
      {"the first tag missing", {tag(1), tag(3), tag(4)}},
      {"the last tag missing", {tag(0), tag(1), tag(3)}},
      {"a tag twice", {tag(0), tag(1), tag(3), tag(4), tag(4)}},
      {"the wrong order", {tag(0), tag(4), tag(3), tag(1)}},
      {"nothing", {}},
      {"another stream id", {tag(0), tag(1), tag(3), {22, 30, entry}}},
      {"a torn aggregate", {tag(0), tag(1), tag(3), tag(4), {22, 30, Bytes(5)}}},
  };
  for (const auto& wrong : kWrong) EXPECT_GT(faults(wrong.sent), 0u) << wrong.name;
}

}  // namespace
}  // namespace orv::host
