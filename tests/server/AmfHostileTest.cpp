// What the reader makes of bytes that lie, stop short, nest without end or refer to themselves; and what the
// writer makes of values that do.

#include <gtest/gtest.h>

#include <regex>

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

// What a value holds in which the bytes end.
TEST(AmfFailure, leavesWhatWasReadWhole) {
  const struct {
    const char* name;
    const char* bytes;
    const char* value;
  } kRows[] = {
      {"no marker", "", "Undefined"},
      {"number", "00 3FF8", "0"},
      {"string", "02 0005 'hell'", "\"\""},
      {"date", "0B 4059000000000000 00", "Date(100, 0)"},
      {"xml", "0F 00000005 '<a/>'", "Xml\"\""},
      {"memory", "20 00000004 010203", "Memory<none>"},
      {"class name", "10 0004 'cls'", "Undefined"},
      {"count above the bytes left", "0A 00000003 05 05", "Undefined"},
      {"member without a value", "08 00000000 0001'a' 05 0001'b'", "EcmaArray[8]{a: Null}"},
      {"member with a cut value", "03 0001'a' 05 0001'b' 00 00", "Object[3]{a: Null}"},
      {"cut inner container", "03 0001'a' 05 0001'b' 03 0001'c' 05 0001'd' 02 00",
       "Object[3]{a: Null, b: Object[3]{c: Null}}"},
      {"cut element", "0A 00000003 05 02 0001", "EcmaArray[6]{0: Null}"},
      {"AMF3 integer", "11 04 80", "0#4"},
      {"AMF3 string past the table", "11 06 00", "\"\""},
      {"AMF3 xml", "11 0B 07'ab'", "Xml#11\"\""},
      {"AMF3 date", "11 08 01 4059", "Date#8(0, 0)"},
      {"AMF3 bytes", "11 0C 07 0102", "Memory#12<none>"},
      {"AMF3 reference past the table", "11 09 00", "Undefined"},
      {"AMF3 count above the bytes left", "11 09 07 01 01", "Undefined"},
      {"AMF3 cut named entry", "11 09 01 03'a' 01 03'b' 05 00", "EcmaArray#9[9]{a: Null#1}"},
      {"AMF3 cut dense part", "11 09 07 03'a' 01 01 01 04 05 06 07",
       "EcmaArray#9[9]{0: Null#1, 1: 5#4, a: Null#1}"},
      {"AMF3 externalizable class", "11 0A 07 07'cls'", "Undefined"},
      {"AMF3 reference to no class", "11 0A 01", "Amf3#10[10]{}"},
      {"AMF3 cut sealed member", "11 0A 23 01 03'a' 03'b' 01 05 00",
       "Amf3#10[10]{constructor: \"\", a: Null#1}"},
      {"AMF3 more members than bytes", "11 0A 43 01 03'a'", "Undefined"},
      {"AMF3 vector of 2^28 - 1", "11 0D FFFFFFFF 00 00000001", "Undefined"},
      {"AMF3 vector of more than there is", "11 0D 05 00 00000001", "Undefined"},
      {"AMF3 dictionary of more than there is", "11 11 07 00 01 01 01 01", "Undefined"},
      {"AMF3 cut vector of objects", "11 10 07 00 01 01 09 01 03'a' 01",
       "Amf3#16[6]{size: 3, fixed: false, closure: \"\", value: Null#1, value: EcmaArray#9[9]{a: Null#1}}"},
      {"AMF3 cut plain element of a vector", "11 10 05 00 01 01 05 00",
       "Amf3#16[6]{size: 2, fixed: false, closure: \"\", value: Null#1}"},
      {"AMF3 cut dictionary pair", "11 11 05 00 01 01 04 05 06 07",
       "Amf3#17[6]{size: 2, weak: false, key: Null#1, value: Null#1}"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    const Bytes bytes = bytesOf(row.bytes);
    KTCSerializer reader = readerOf(bytes);
    KTData value;
    reader.readValue(value);
    EXPECT_TRUE(reader.failed());
    EXPECT_EQ(reader.position(), reader.limit());
    EXPECT_EQ(describe(value), row.value);
    KTCSerializer strict = readerOf(bytes, true);
    EXPECT_THROW(strict.readValue(value), KTBreakConnection);
  }
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
  } kRows[] = {
      {"0A 0001FBD0", "03 0004'time' 00 00(8) 0006'offset' 00 00(8) 000009", 130'000},
      {"03", "0008'duration' 00 00(8)", 50'000, "000009"},
      {"0A 0001FBD0", "02 0008'abcdefgh'", 130'000},
      {"0A 00002710", "03 000009", 10'000},
      {"11 09 CE11 01", "0A 0B 01 09'time' 05 00(8) 01", 5'000},
  };
  for (const auto& row : kRows) {
    const Bytes bytes = joined(row.head, row.unit, row.count, row.end);
    KTData value;
    EXPECT_NO_THROW(readerOf(bytes, true).readValue(value)) << row.unit;
    EXPECT_EQ(value.asArray()->size(), row.count);
  }
}

// Cycles hold while the reader does; then each reference to an array around it becomes Undefined, and what
// the caller still has is freed with it.
TEST(AmfCycles, endWithTheirReader) {
  const struct {
    const char* bytes;
    const char* value;
  } kRows[] = {
      {"03 0001'a' 07 0000 000009", "Object[3]{a: EcmaArray^1}"},
      {"03 0001'a' 0A 00000002 07 0000 07 0001 000009",
       "Object[3]{a: EcmaArray[6]{0: EcmaArray^2, 1: EcmaArray^1}}"},
      {"11 09 03 03'a' 09 00 01 09 00", "EcmaArray#9[9]{0: EcmaArray#9^1, a: EcmaArray#9^1}"},
      {"11 0A 1B 01 03'a' 0A 00 03'b' 0A 00 01",
       "Amf3#10[10]{constructor: \"\", a: Amf3#10^1, b: Amf3#10^1}"},
      {"11 09 01 03'a' 11 03 00 09 00 10 03 00 01 09 00 01",
       "EcmaArray#9[9]{a: Amf3#17[6]{size: 1, weak: false, key: EcmaArray#9^2, value: Amf3#16[6]{size: 1, "
       "fixed: false, closure: \"\", value: EcmaArray#9^3}}}"},
  };
  const std::regex reference("[A-Za-z0-9#]+\\^[0-9]");
  for (const auto& row : kRows) {
    const Bytes bytes = bytesOf(row.bytes), torn = joined(row.bytes, "FF", 1);
    const std::string after = std::regex_replace(row.value, reference, "Undefined");
    const HeapWatch heap;
    {
      KTData value;
      {
        KTCSerializer reader = readerOf(bytes), writer;
        reader.readValue(value, true);
        EXPECT_EQ(describe(value), row.value);
        KTData shown;
        value.toText(shown);
        const KTDataArrayPtr copy(new KTDataArray(*value.asArray()));
        writer.writeValue(value);
        EXPECT_FALSE(writer.failed());
      }
      EXPECT_EQ(describe(value), after);
    }
    EXPECT_EQ(heap->live, 0U);
    // A cycle in what an exception leaves half read.
    EXPECT_THROW(commandOf(flv::kTypeDataAmf0, torn, true), KTBreakConnection);
    EXPECT_EQ(heap->live, 0U);
  }
}

}  // namespace
}  // namespace orv::test
