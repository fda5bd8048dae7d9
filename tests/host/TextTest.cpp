// Times, media heads, picture sizes and AMF values as text.

#include <gmock/gmock.h>

#include "Movie.h"
#include "host/flv/AmfJson.h"
#include "host/flv/FlvNames.h"
#include "host/flv/PictureSize.h"
#include "host/text/Console.h"
#include "host/text/TimeText.h"

namespace orv::host::test {
namespace {

using nlohmann::json;

TEST(TimeText, readsTheWaysInWhichTimesAreWritten) {
  const std::pair<const char*, u32> kTimes[] = {{"0", 0},
                                                {"12.5", 12500},
                                                {"12.5s", 12500},
                                                {"500ms", 500},
                                                {"1.0009", 1000},
                                                {"5.038000", 5038},
                                                {"007", 7000},
                                                {"1:02:03.250", 3723250},
                                                {"90:00", 5400000},
                                                {"00:59.9", 59900},
                                                {"4294967.295", 4294967295},
                                                {"4294967295ms", 4294967295},
                                                {"1193:02:47.295", 4294967295}};
  for (const auto& [text, time] : kTimes) EXPECT_EQ(parseTime(text), time) << text;
  for (const char* text : {"4294967.296", "99999999999999999999", "", "-1", ".5", "5.", "1:60", "1:60:00",
                           "1:2:3:4", "1:", ":30", "1:30s", "1:30ms", "5 s", "5m", "1e3"}) {
    EXPECT_EQ(parseTime(text), std::nullopt) << text;
  }
}

TEST(TimeText, writesHoursToMilliseconds) {
  EXPECT_EQ(timeText(0), "00:00:00.000");
  EXPECT_EQ(timeText(3723250), "01:02:03.250");
  EXPECT_EQ(timeText(4294967295), "1193:02:47.295");
}

TEST(Progress, showsShareRateAndTimeLeft) {
  using std::chrono::milliseconds;
  constexpr i64 kMiB = 1 << 20;
  EXPECT_EQ(shareText(42 * kMiB, 100 * kMiB, milliseconds(2000)), "42%  21 MiB/s  0:03 left");
  EXPECT_EQ(shareText(kMiB, 1000 * kMiB, milliseconds(1000)), "0%  1 MiB/s  16:39 left");
  EXPECT_EQ(shareText(kMiB, 0, milliseconds(1000)), "1 MiB/s");
  EXPECT_EQ(shareText(0, kMiB, milliseconds(0)), "0 MiB/s");
}

// What a media tag's payload says, as one line: "codec: packet[, key][, composition time], bytes read".
std::string told(u8 type, const std::string& bytes) {
  const Bytes data = bytesOf(bytes);
  const Tag tag{type, 0, 0, data.data(), static_cast<u32>(data.size())};
  const auto head = mediaHead(tag);
  std::string text = codecText(tag);
  if (!head) return text;
  text += std::string(": ") + packetName(head->packet);
  if (head->isKeyFrame) text += ", key";
  if (head->compositionTime) text += ", " + std::to_string(head->compositionTime) + " ms";
  if (head->needsSetup()) text += ", needs set-up";
  EXPECT_EQ(isKeyFrame(tag), head->isKeyFrame);
  EXPECT_EQ(isCodecSetup(tag), head->isSetup());
  return text + ", " + std::to_string(head->size);
}

TEST(MediaHead, tellsWhatThePayloadsFirstBytesSay) {
  const struct {
    u8 type;
    std::string bytes;
    const char* told;
  } kTags[] = {
      {9, "12 00", "H.263 (Sorenson): frames, key, 1"},
      {9, "22 00", "H.263 (Sorenson): frames, 1"},
      {9, "52 00", "H.263 (Sorenson): command, 1"},
      {9, "1F", "unknown codec 15: frames, key, 1"},
      {9, "17 00 000000 01", "H.264: set-up, needs set-up, 2"},
      {9, "17 01 000050 01", "H.264: frames, key, 80 ms, needs set-up, 5"},
      {9, "27 01 FFFFFF 01", "H.264: frames, -1 ms, needs set-up, 5"},
      {9, "17 02 000000", "H.264: end, needs set-up, 2"},
      {9, "17 01", "H.264: frames, key, needs set-up, 2"},
      {9, "17 07 000000", "H.264: unknown, needs set-up, 2"},
      {9, "17", "H.264: unknown, needs set-up, 1"},
      {9, "1C 01 000028 01", "H.265: frames, key, 40 ms, needs set-up, 5"},
      {8, "AF 00 12", "AAC: set-up, needs set-up, 2"},
      {8, "AF 01 12", "AAC: frames, needs set-up, 2"},
      {8, "AF 02", "AAC: unknown, needs set-up, 2"},
      {8, "2F", "MP3, 44.1 kHz, stereo, 16 bit: frames, 1"},
      {8, "10", "ADPCM, 5.5 kHz, mono, 8 bit: frames, 1"},
      {8, "70", "G.711 A-law: frames, 1"},
      {8, "C0", "unknown codec 12: frames, 1"},
      // Extended.
      {9, "90 'hvc1' 01", "H.265 (hvc1): set-up, needs set-up, 5"},
      {9, "91 'hvc1' 000021", "H.265 (hvc1): frames, key, 33 ms, needs set-up, 8"},
      {9, "93 'avc1' 000021", "H.264 (avc1): frames, key, needs set-up, 5"},
      {9, "A1 'vvc1' FFFFFE", "H.266 (vvc1): frames, -2 ms, needs set-up, 8"},
      {9, "91 'av01' 000021", "AV1 (av01): frames, key, needs set-up, 5"},
      {9, "95 'av01'", "AV1 (av01): set-up, needs set-up, 5"},
      {9, "A1 'vp09' 00", "VP9 (vp09): frames, 5"},
      {9, "92 'vp08'", "VP8 (vp08): end, 5"},
      {9, "94 'hvc1' 02", "H.265 (hvc1): information, needs set-up, 5"},
      {9, "D1 00", "unknown codec: command, 1"},
      {9, "9A 'hvc1'", "H.265 (hvc1): unknown, needs set-up, 5"},
      {9, "91 'hvc'", "unknown codec: unknown, 4"},
      {9, "91 00010203", "unknown codec (....): frames, key, 5"},
      {8, "90 'Opus'", "Opus (Opus): set-up, 5"},
      {8, "91 'fLaC'", "FLAC (fLaC): frames, 5"},
      {8, "91 'ac-3'", "AC-3 (ac-3): frames, 5"},
      {8, "94 'ec-3'", "E-AC-3 (ec-3): information, 5"},
      {8, "92 '.mp3'", "MP3 (.mp3): end, 5"},
      {8, "93 'mp4a'", "AAC (mp4a): unknown, needs set-up, 5"},
      // One track with its number, many with number and size; many codecs: the first counts.
      {9, "96 01 'hvc1' 05 000021", "H.265 (hvc1), multitrack: frames, key, 33 ms, needs set-up, 10"},
      {9, "96 11 'avc1' 05 000009 000021", "H.264 (avc1), multitrack: frames, key, 33 ms, needs set-up, 13"},
      {9, "A6 21 'vp09' 05 000009", "VP9 (vp09), multitrack: frames, 10"},
      {8, "95 20 'Opus' 00 000009", "Opus (Opus), multitrack: set-up, 10"},
      {8, "95", "unknown codec, multitrack: unknown, 1"},
      // A modifier of 3 bytes, then one of 256, then frames.
      {9, "97 02 000102 07 FF 00FF" + std::string(256 * 2, '0') + "01 'avc1' 000001",
       "H.264 (avc1): frames, key, 1 ms, needs set-up, 273"},
      {9, "97 FF", "unknown codec: unknown, 2"},
      {9 | 0x20, "17 00", "encrypted"},
      {9, "", ""},
      {18, "12", ""},
  };
  for (const auto& t : kTags) EXPECT_EQ(told(t.type, t.bytes), t.told) << t.bytes;
}

// As encoders wrote them: libaom, SVT-AV1, libvpx.
TEST(PictureSize, isReadFromSetupRecordsAndKeyFrames) {
  const struct {
    std::string bytes;
    std::string size;
  } kTags[] = {
      {"90 'av01' 81010C00 0A0B0000000CC4FF6736BE4010", "640x360"},
      {"91 'av01' 1200 0A0B0000000CC4FF6736BE4010 32A01A1400", "640x360"},
      {"90 'av01' 81000C00 0A0B000000043EA7BCFBF90040", "426x240"},
      {"91 'vp09' 824983420035501DF60638241C184A10", "854x480"},
      {"91 'vp09' B124C1A14000638031B041C120E0C2E0", "200x100"},  // Profile 3.
      {"91 'vp08' 1074009D012A4201F200000708858588", "322x242"},
      {"A1 'vp08' 1074009D012A4201F200000708858588", ""},
      {"90 'av01' 81010C00 0A7F0000000CC4FF6736BE4010", ""},  // A size that lies.
      {"91 'av01' FEFFFFFFFFFF", ""},
      {"91 'vp09' 82498343", ""},
  };
  for (const auto& t : kTags) {
    const Bytes data = bytesOf(t.bytes);
    for (std::size_t size = data.size(); size > 0; --size) {  // Whole, and cut anywhere.
      const Tag tag{9, 0, 0, data.data(), static_cast<u32>(size)};
      const auto pictures = pictureSize(tag, *mediaHead(tag));
      const std::string text =
          pictures ? std::to_string(pictures->width) + "x" + std::to_string(pictures->height) : "";
      EXPECT_TRUE(text == t.size || (text.empty() && size < data.size())) << t.bytes << ": " << text;
    }
  }
}

json dataTag(u8 type, const Bytes& payload) {
  std::string text;
  JsonWriter out([&text](const std::string& piece) { text += piece; });
  out.beginObject();
  writePayload(Tag{type, 0, 0, payload.data(), static_cast<u32>(payload.size())}, out);
  out.end();
  out.finish();
  return json::parse(text);
}

// The argument of a message whose bytes behind the name are given.
std::string argument(u8 type, const std::string& bytes) {
  const json message = dataTag(type, bytesOf(std::string(type == 15 ? "00 " : "") + "02 0001'n'" + bytes));
  return message["values"].size() == 1 ? message["values"][0].dump() : message.dump();
}

TEST(AmfJson, keepsTheTypesApart) {
  const struct {
    u8 type;
    const char* bytes;
    const char* text;
  } kValues[] = {
      {18, "00 4008000000000000", "3.0"},
      {18, "00 7FF8000000000000", R"({"text":"nan","type":"number"})"},
      {18, "06", R"({"type":"undefined"})"},
      {18, "0B 4271F71FB0450000 003C",
       R"({"ms":1234567890000.0,"text":"2009-02-13T23:31:30.000Z","timezone":60,"type":"date"})"},
      {18, "0B 7FF0000000000000 0000", R"({"ms":{"text":"inf","type":"number"},"type":"date"})"},
      {18, "0F 00000003'<a>'", R"({"text":"<a>","type":"xml"})"},
      {18, "22 7FFFFFFFFFFFFFFF", R"({"type":"int64","value":9223372036854775807})"},
      {18, "03 0001'a' 05 000009", R"({"entries":{"a":null},"type":"object"})"},
      {18, "08 00000000 0001'a' 05 0001'a' 01 00 000009",
       R"({"pairs":[["a",null],["a",false]],"type":"ecmaArray"})"},
      {18, "0A 00000002 05 01 01", R"({"type":"strictArray","values":[null,true]})"},
      {18, "10 0001'C' 0001'a' 05 000009", R"({"class":"C","entries":{"a":null},"type":"typedObject"})"},
      {15, "11 04 03", "3"},
      {15, "11 05 4008000000000000", "3.0"},
      {15, "11 09 05 01 04 01 04 02", R"({"type":"amf3Array","values":[1,2]})"},
      {15, "11 0A 0B 03'C' 03'a' 04 01 01", R"({"class":"C","entries":{"a":1},"type":"amf3Object"})"},
      {15, "11 0C 05 01FF", R"({"hex":"01ff","size":2,"type":"bytes"})"},
      {15, "11 0D 05 01 FFFFFFFF 00000001",
       R"({"fixed":true,"of":"int","type":"amf3Vector","values":[-1,1]})"},
      {15, "11 0E 03 00 FFFFFFFF",
       R"({"fixed":false,"of":"uint","type":"amf3Vector","values":[4294967295]})"},
      {15, "11 11 03 00 06 03'k' 04 07", R"({"pairs":[["k",7]],"type":"amf3Dictionary","weak":false})"},
      // An array inside itself; one array twice.
      {18, "03 0001'a' 07 0000 000009",
       R"({"entries":{"a":{"to":1,"type":"reference"}},"id":1,"type":"object"})"},
      {18, "0A 00000002 03 000009 07 0001",
       R"({"type":"strictArray","values":[{"entries":{},"id":1,"type":"object"},{"to":1,"type":"reference"}]})"},
  };
  for (const auto& value : kValues) EXPECT_EQ(argument(value.type, value.bytes), value.text) << value.bytes;
}

TEST(AmfJson, showsWhatIsTornOrNoAmfAsFarAsItGoes) {
  EXPECT_EQ(dataTag(18, bytesOf("02 0001'n' 0A FFFFFFFF")).dump(),
            R"({"encoding":"AMF0","name":"n","torn":true,"values":[{"type":"undefined"}]})");
  EXPECT_EQ(dataTag(18, bytesOf("02 0001'n' 1E")).dump(), R"({"bytes":"0200016e1e"})");
  EXPECT_EQ(dataTag(4, bytesOf("0102")).dump(), R"({"bytes":"0102"})");
  EXPECT_EQ(dataTag(18, {}).dump(), R"({"encoding":"AMF0","name":{"type":"undefined"},"values":[]})");
}

// An AMF3 array's named part is read before its list and shown behind it. Here each list leads, 60 levels
// down, to the array of the same kind in the named part: the way in which they are met first is 1,800 long.
TEST(AmfJson, depthIsBoundedWhereTheFirstWayToAnArrayIsALongOne) {
  constexpr u32 kLevels = 60;
  std::string open = "09 03 03'k'", close;
  for (u32 i = 1; i < kLevels; ++i) open += "09 03 00";  // The same key.
  for (u32 i = kLevels; i-- > 0;) {
    close += "01";
    for (u32 level = i; level < kLevels; ++level) close += "09 03 01";
    const u8 reference[] = {9, static_cast<u8>((i + 1) << 1)};
    close += orv::test::hexOf(reference, sizeof reference);
  }
  const std::string text = argument(15, "11" + open + "09 01 01" + close);
  EXPECT_THAT(text, testing::Not(testing::HasSubstr("torn")));
  EXPECT_THAT(text, testing::HasSubstr("deeper than is shown"));
}

}  // namespace
}  // namespace orv::host::test
