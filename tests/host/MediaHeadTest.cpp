#include "host/flv/FlvNames.h"

#include <gtest/gtest.h>

#include "Movie.h"
#include "host/flv/PictureSize.h"

namespace orv::host {
namespace {

using namespace test;

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

}  // namespace
}  // namespace orv::host
