#include "host/report/Timeline.h"

#include "Damage.h"

namespace orv::host {
namespace {

using namespace test;

TEST(Timeline, keepsEveryByteHoweverLongTheFile) {
  Timeline timeline;
  orv::test::Random random(3);
  u64 video = 0, audio = 0, keys = 0;
  const Bytes data(50, 0x12);
  for (u32 i = 0; i < 5000; ++i) {
    const u32 size = 1 + random.below(50), time = random.below(1 + i * 700'000);
    const Tag tag{i % 2 ? flv::kTypeVideo : flv::kTypeAudio, time, 0, data.data(), size};
    timeline.note(tag, mediaHead(tag));
    (i % 2 ? video : audio) += size;
    keys += i % 2;
  }
  EXPECT_LE(timeline.stretches().size(), Timeline::kMostStretches);
  for (const Timeline::Stretch& stretch : timeline.stretches()) {
    video -= stretch.video, audio -= stretch.audio, keys -= stretch.keyFrames;
  }
  EXPECT_EQ(video + audio + keys, 0u);
}

}  // namespace
}  // namespace orv::host
