#include <gmock/gmock.h>

#include "Movie.h"
#include "Program.h"

namespace orv::host::test {
namespace {

using testing::HasSubstr;

class FollowCommandTest : public testing::Test {
 protected:
  Bytes part(std::size_t begin, std::size_t end) const { return cut(stream, begin, end); }

  TempDir dir;
  const std::string file = dir.path("live.flv");
  // A follower gets the metadata first.
  const FlvBuilder stream = movie(2000, FlvBuilder().tag(18, 0, onMetaData()));
};

// Appended to by other means than the module, a byte or a few at a time: only whole tags ever come.
TEST_F(FollowCommandTest, neverPlaysATagThatIsStillBeingWritten) {
  const Bytes rest = part(300, 330);
  const std::string played = dir.path("played.flv");
  std::ofstream out(file, std::ios::binary);
  out << str(stream.bytes()).substr(0, 13) << std::flush;
  Running run("follow " + file + " -o " + played);
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(played); }));  // It waits for the first tag.
  out << str(part(0, 300)).substr(13) << std::flush;
  ASSERT_TRUE(eventually([&] { return TempDir::read(played) == part(0, 300); }));
  for (std::size_t at = 0; at < rest.size(); at += 2500) {
    const std::size_t held = TempDir::read(played).size();
    out << str(rest).substr(at, 2500) << std::flush;
    // 2,500 bytes bring two whole tags, of which the torn one behind them hides the last at most.
    ASSERT_TRUE(eventually([&] { return TempDir::read(played).size() > held; })) << at;
  }
  ASSERT_TRUE(eventually([&] { return TempDir::read(played) == part(0, 330); }));
  run.signal(SIGINT);
  const Outcome result = run.wait();
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.err, HasSubstr("329 tags, 329000 bytes of data, 00:00:00.000 to 00:00:06.560"));
  const Outcome counted = flvhost("follow " + file + " --until-idle 0");
  EXPECT_EQ(counted.out, "");
  EXPECT_THAT(counted.err, HasSubstr("329 tags"));
}

TEST_F(FollowCommandTest, endsWhenThereIsNothingMoreToFollow) {
  const Bytes start = part(0, 100);
  const char* const kGone = "was removed, replaced or cut";
  const struct {
    std::function<void()> change;
    const char* options;
    int exitCode;
    const char* line;
  } kCases[] = {
      {[] {}, "--until-idle 200ms", 0, "99 tags"},
      {[&] { std::filesystem::remove(file); }, "", 1, kGone},
      {[&] { std::filesystem::rename(dir.file("other", stream.bytes()), file); }, "", 1, kGone},
      {[&] { std::filesystem::resize_file(file, 5000); }, "", 1, kGone},
  };
  for (const auto& c : kCases) {
    dir.file("live.flv", start);
    const std::string out = dir.path("out.flv");
    Running run("follow " + file + " -o " + out + " " + c.options);
    EXPECT_TRUE(eventually([&] { return TempDir::read(out) == start; })) << c.line;
    c.change();
    const Outcome result = run.wait();
    EXPECT_EQ(result.exitCode, c.exitCode) << result.err;
    EXPECT_THAT(result.err, HasSubstr(c.line));
    EXPECT_TRUE(TempDir::read(out) == start) << c.line;
    std::filesystem::remove(out);
  }
}

TEST_F(FollowCommandTest, waitsForTheFileAndStartsWhereAsked) {
  Running waiting("follow " + file + " --wait -o -");
  const std::string whole = dir.file("whole.flv", part(0, 2001));
  std::filesystem::rename(whole, file);
  ASSERT_TRUE(eventually([&] { return waiting.out().size() == part(0, 2001).size(); }));
  waiting.signal(SIGINT);
  EXPECT_EQ(waiting.wait().exitCode, 0);
  const std::size_t head = part(0, 1).size();
  for (const char* const from : {"30.5", "-9.48"}) {  // Of 39.980.
    const Outcome late = flvhost("follow " + file + " --until-idle 0 -o - --from " + from);
    EXPECT_EQ(late.exitCode, 0) << late.err;
    EXPECT_TRUE(late.out.substr(head) == str(part(1502, 2001))) << from;  // The key frame at 30.020.
  }
}

}  // namespace
}  // namespace orv::host::test
