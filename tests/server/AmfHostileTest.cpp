// What the reader makes of bytes that lie, stop short, nest without end or refer to themselves; and what the
// writer makes of values that do.

#include <gtest/gtest.h>

#include "ServerTest.h"
#include "support/HeapWatch.h"
#include "util/KTThrowable.h"

namespace orv::test {
namespace {

constexpr std::size_t kMiB = 1 << 20;

Bytes joined(const char* head, const char* unit, std::size_t count, const char* end = "") {
  Bytes bytes = bytesOf(head);
  const Bytes more = bytesOf(unit), last = bytesOf(end);
  for (std::size_t i = 0; i < count; ++i) bytes.insert(bytes.end(), more.begin(), more.end());
  bytes.insert(bytes.end(), last.begin(), last.end());
  return bytes;
}

// Containers inside one another, each the first entry of the one around it.
u32 levelsOf(const KTData& value) {
  const KTDataArray* const array = value.asArray();
  return array ? 1 + levelsOf(array->valueAt(0)) : 0;
}

TEST(AmfFailure, anUnknownAmf0MarkerAlwaysThrows) {
  for (int marker = 0; marker < 256; ++marker) {
    const Bytes bytes(64, static_cast<u8>(marker));
    const bool known = marker <= 13 || (marker >= 15 && marker <= 17) || marker == 32 || marker == 34;
    KTCSerializer reader = readerOf(bytes);
    KTData value;
    if (known)
      EXPECT_NO_THROW(reader.readValue(value)) << marker;
    else
      EXPECT_THROW(reader.readValue(value), KTBreakConnection) << marker;
  }
}

// 1 MiB of each costs at most 23 MiB of heap at a time, and not much more in all, copies included, and leaves
// nothing. What nests does so more than 100,000 times.
TEST(AmfHostile, memoryAndWorkAreBoundedByTheLength) {
  const struct {
    const char* name;
    const char* head;
    const char* unit;
  } kRows[] = {
      {"nested strict arrays", "", "0A 00000001"},
      {"nested associative arrays", "", "08 FFFFFFFF 0000"},
      {"nested AMF3 arrays", "11", "09 03 01"},
      {"nested AMF3 objects", "11", "0A 0B 01 03'a'"},
      {"nested AMF3 vectors", "11", "10 03 00 01"},
      {"nested AMF3 dictionaries", "11", "11 03 00"},
      {"arguments of one byte", "", "05"},
      {"nulls in a strict array", "0A 000F0000", "05"},
      {"short texts", "0A 00030000", "02 0001'a'"},
      {"objects with empty keys", "03", "0000 05"},
      {"strict arrays that claim all that is left", "0A 00020000", "0A 00080000"},
      {"AMF3 integers", "11 09 FFFF01 01", "04 05"},
      {"AMF3 objects of one class", "11 09 FFFF01 01 0A 03 01", "0A 01"},
      {"AMF3 empty texts of XML", "11 09 FFFF01 01", "07 01"},
      {"AMF3 empty byte arrays", "11 09 FFFF01 01", "0C 01"},
      {"AMF3 vectors", "11 09 FFFF01 01", "0D 01 00"},
      {"AMF3 classes", "11 09 FFFF01 01", "0A 03 01"},
      {"a long AMF3 text over and over", "11 09 FFFF01 01 06 819C21 'x'(10000)", "06 00"},
      {"long AMF3 keys over and over", "11 09 01 819C21 'x'(10000) 01", "00 01"},
      {"a long AMF3 XML over and over", "11 09 FFFF01 01 07 819C21 'x'(10000)", "07 02"},
      {"a class of long names over and over", "11 09 FFFF01 01 0A 23 819C21 'x'(10000) 00 00 01 01",
       "0A 01 01 01"},
      {"references to the array around", "03", "0000 07 0000"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    const Bytes bytes =
        joined(row.head, row.unit, (kMiB - bytesOf(row.head).size()) / bytesOf(row.unit).size());
    const HeapWatch heap;
    {
      const KTCommand command = commandOf(flv::kTypeDataAmf0, bytes);
      EXPECT_LE(heap->peak, 23 * kMiB);
      EXPECT_LE(heap->bytes, 31 * kMiB);
      for (const i32 encoding : {0, 3}) {
        KTCommand written(command);
        written.setEncoding(encoding);
        written.serializeData();
      }
    }
    EXPECT_EQ(heap->live, 0U);
  }
}

// The 65th container fails, as its place in the value shows.
TEST(AmfHostile, readingEndsBehind64Levels) {
  const struct {
    const char* unit;
    const char* innermost;
  } kRows[] = {{"03 0001'a'", "03 000009"}, {"0A 00000001", "0A 00000000"}};
  for (const auto& row : kRows) {
    for (const u32 depth : {63U, 64U}) {
      const Bytes bytes = joined("", row.unit, depth, row.innermost);
      KTData value;
      readerOf(bytes).readValue(value);
      EXPECT_EQ(levelsOf(value), 64U);
    }
  }
  const Bytes full = joined("11", "09 03 01", 64, "08 01 00(8)");  // A date takes no level.
  KTData whole;
  EXPECT_NO_THROW(readerOf(full, true).readValue(whole));
}

// A file can make a chain of any length by references, each array having the one before; what would be the
// 65th level is then written as Undefined.
TEST(AmfHostile, writingEndsBehind64Levels) {
  const struct {
    u8 type;
    i32 encoding;
    Bytes written;
  } kRows[] = {
      {KTData::StrictArray, 0, joined("", "0A 00000001", 64, "06")},
      {KTData::EcmaArray, 3, joined("11 09 01 03'a'", "09 01 00", 63, "00 01(64)")},
  };
  for (const auto& row : kRows) {
    for (const u32 depth : {64U, 65U}) {
      KTData chain;
      for (u32 i = 0; i < depth; ++i) chain = container(row.type, {{"a", chain}});
      KTCSerializer writer;
      writer.setEncoding(row.encoding);
      writer.writeValue(chain);
      EXPECT_EQ(hexOf(bytesIn(writer)), hexOf(row.written));
      EXPECT_EQ(writer.failed(), depth == 65);
    }
  }
}

// Ordinary metadata of any length is read whole.
TEST(AmfHostile, longHonestPayloadsAreReadWhole) {
  const struct {
    const char* head;
    const char* unit;
    u32 count;
    const char* end = "";
    u32 before = 0;  // Entries in the head.
  } kRows[] = {
      {"0A 0001FBD0", "03 0004'time' 00 00(8) 0006'offset' 00 00(8) 000009", 130'000},
      {"03", "0008'duration' 00 00(8)", 50'000, "000009"},
      // 1 MiB of plain arrays.
      {"0A 0007FFF0", "01 01", 0x7FFF0},
      {"0A 0003FFF0", "02 0001'a'", 0x3FFF0},
      {"0A 00017000", "0B 00(8) 0000", 0x17000},
      {"11 09 BFFF61 01", "04 05", 0x7FFF0},
      // 100 KB of the dearest forms.
      {"0A 00018600", "05", 0x18600},
      {"0A 00006100", "03 000009", 0x6100},
      {"0A 00008200", "02 0000", 0x8200},
      {"03", "0000 05", 33'000, "000009"},
      {"11 09 85FD53 01 0A 03 03'x'", "0A 01", 49'000, "", 1},
      {"11 09 85FD53 01 06 03'x'", "06 00", 49'000, "", 1},
      {"11 09 85FD51 01", "07 01", 49'000},
      {"11 09 85FD51 01", "0C 01", 49'000},
      {"11 09 848041 01", "11 01 00", 32'800},
  };
  for (const auto& row : kRows) {
    const Bytes bytes = joined(row.head, row.unit, row.count, row.end);
    KTData value;
    const HeapWatch heap;
    EXPECT_NO_THROW(readerOf(bytes, true).readValue(value)) << row.unit;
    EXPECT_LE(heap->peak, 23 * std::max(bytes.size(), kMiB)) << row.unit;
    EXPECT_EQ(value.asArray()->size(), row.count + row.before) << row.unit;
    value.clear();
  }
}

}  // namespace
}  // namespace orv::test
