// The wire forms: bytes to value, and the value to bytes again.

#include <gtest/gtest.h>

#include "server/KTCSerializer.h"
#include "support/AmfText.h"

namespace orv::test {
namespace {

struct Form {
  const char* name;
  const char* bytes;
  const char* value;
  const char* written = nullptr;  // Null: the same bytes.
  int encoding = 0;
};

std::string written(const KTData& value, int encoding) {
  KTCSerializer writer;
  writer.setEncoding(encoding);
  writer.writeValue(value);
  EXPECT_FALSE(writer.failed());
  return hexOf(writer.bytes(), static_cast<std::size_t>(writer.length()));
}

void check(const Form& form) {
  SCOPED_TRACE(form.name);
  const Bytes bytes = bytesOf(form.bytes);
  KTCSerializer reader(bytes.data(), static_cast<u32>(bytes.size()), false);
  KTData value;
  reader.readValue(value);
  EXPECT_FALSE(reader.failed());
  EXPECT_EQ(reader.remaining(), 0U);
  EXPECT_EQ(describe(value), form.value);
  EXPECT_EQ(written(value, form.encoding), hexOf(form.written ? bytesOf(form.written) : bytes));
}

const Form kAmf0[] = {
    {"number", "00 3FF8000000000000", "1.5"},
    {"true", "01 01", "true"},
    {"only 1 is true", "01 02", "false", "01 00"},
    {"string", "02 0005 'hello'", "\"hello\""},
    {"empty string", "02 0000", "\"\""},
    {"string up to its first NUL", "02 0004 'ab' 00 'c'", "\"ab\"", "02 0002 'ab'"},
    {"movie clip", "04 0002 'ab'", "\"ab\"", "02 0002 'ab'"},
    {"null", "05", "Null"},
    {"undefined", "06", "Undefined"},
    {"end", "09", "Undefined", "06"},
    {"long string", "0C 00000002 'ab'", "\"ab\"", "02 0002 'ab'"},
    {"unsupported", "0D", "Undefined", "06"},
    {"date", "0B 4059000000000000 FFC4", "Date(100, 65476)"},
    {"xml", "0F 00000004 '<a/>'", "Xml\"<a/>\""},
    {"memory", "20 00000003 010203", "Memory<010203>"},
    {"empty memory", "20 00000000", "Memory<>"},
    {"64-bit integer", "22 FFFFFFFFFFFFFFFE", "Int64(-2)"},
    {"object", "03 0001'a' 05 0000 0101 000009", "Object[3]{a: Null, : true}"},
    {"end behind a key", "03 0001'a' 05 0001'b'09", "Object[3]{a: Null}", "03 0001'a' 05 000009"},
    {"associative array, count ignored", "08 00000007 0001'a' 05 000009", "EcmaArray[8]{a: Null}",
     "08 00000000 0001'a' 05 000009"},
    {"strict array", "0A 00000002 05 06", "EcmaArray[6]{0: Null, 1: Undefined}",
     "08 00000000 0001'0' 05 0001'1' 06 000009"},
    {"strict array that ends early", "0A 00000002 05 09", "EcmaArray[6]{0: Null}",
     "08 00000000 0001'0' 05 000009"},
    {"typed object", "10 0003'cls' 0001'a' 05 000009", "TypedObject[16]{constructor: \"cls\", a: Null}"},
    {"object with a member called constructor", "03 000B'constructor' 02 0001'x' 000009",
     "Object[3]{constructor: \"x\"}"},
    {"reference to a brother", "03 0001'a' 03 000009 0001'b' 07 0001 000009",
     "Object[3]{a: Object[3]{}, b: EcmaArray[3]{}}"},
    {"reference to itself", "03 0001'a' 07 0000 000009", "Object[3]{a: EcmaArray^1}"},
    {"reference past the end", "03 0001'a' 07 0001 000009", "Object[3]{a: Undefined}",
     "03 0001'a' 06 000009"},
};

const Form kAmf3[] = {
    {"undefined", "11 00", "Undefined#0", "06"},
    {"null", "11 01", "Null#1", "05"},
    {"marker of no form", "11 12", "Undefined", "06"},
    {"false", "11 02", "false#2", "01 00"},
    {"true", "11 03", "true#3", "01 01"},
    {"string", "11 06 05'ab'", "\"ab\"", "02 0002 'ab'"},
    {"empty string", "11 06 01", "\"\"", "02 0000"},
    {"date", "11 08 01 4059000000000000", "Date#8(100, 0)", nullptr, 3},
    {"xml document", "11 07 03'x'", "Xml#7\"x\"", nullptr, 3},
    {"xml", "11 0B 03'x'", "Xml#11\"x\"", nullptr, 3},
    {"byte array", "11 0C 05 0102", "Memory#12<0102>", nullptr, 3},
    {"array of named entries", "11 09 01 03'a' 04 01 01", "EcmaArray#9[9]{a: 1#4}", nullptr, 3},
    {"dense array", "11 09 05 01 04 05 03", "EcmaArray#9[9]{0: 5#4, 1: true#3}",
     "11 09 01 03'0' 04 05 03'1' 03 01", 3},
    {"both kinds of entry", "11 09 03 03'a' 01 01 02", "EcmaArray#9[9]{0: false#2, a: Null#1}",
     "11 09 01 03'0' 02 03'a' 01 01", 3},
    {"object without a class", "11 0A 0B 01 03'a' 01 01", "Amf3#10[10]{constructor: \"\", a: Null#1}"},
    {"object with a class", "11 0A 0B 07'cls' 03'a' 01 01", "Amf3#10[10]{constructor: \"cls\", a: Null#1}"},
    {"sealed members", "11 0A 23 07'cls' 03'a' 03'b' 01 04 07",
     "Amf3#10[10]{constructor: \"cls\", a: Null#1, b: 7#4}", "11 0A 0B 07'cls' 03'a' 01 03'b' 04 07 01"},
    {"sealed and dynamic members", "11 0A 1B 01 03'a' 01 03'b' 02 01",
     "Amf3#10[10]{constructor: \"\", a: Null#1, b: false#2}", "11 0A 0B 01 03'a' 01 03'b' 02 01"},
    {"class named Object", "11 0A 0B 0D'Object' 01", "Amf3#10[10]{constructor: \"Object\"}",
     "11 0A 0B 01 01"},
    {"reference to a class", "11 09 05 01 0A 13 07'cls' 03'a' 01 0A 01 02",
     "EcmaArray#9[9]{0: Amf3#10[10]{constructor: \"cls\", a: Null#1}, "
     "1: Amf3#10[10]{constructor: \"cls\", a: false#2}}",
     "11 09 01 03'0' 0A 0B 07'cls' 03'a' 01 01 03'1' 0A 0B 02 04 02 01 01", 3},
    {"vector of int", "11 0D 05 01 FFFFFFFF 00000001",
     "Amf3#13[6]{size: 2, fixed: true, value: 4294967295, value: 1}"},
    {"vector of uint", "11 0E 03 00 80000000", "Amf3#14[6]{size: 1, fixed: false, value: 2147483648}"},
    {"vector of double", "11 0F 03 02 3FF8000000000000", "Amf3#15[6]{size: 1, fixed: false, value: 1.5}",
     "11 0F 03 00 3FF8000000000000"},
    {"vector of objects", "11 10 05 00 07'cls' 01 04 05",
     "Amf3#16[6]{size: 2, fixed: false, closure: \"cls\", value: Null#1, value: 5#4}"},
    {"empty vector", "11 0D 01 00", "Amf3#13[6]{size: 0, fixed: false}"},
    {"dictionary", "11 11 03 01 06 03'k' 04 05", "Amf3#17[6]{size: 1, weak: true, key: \"k\", value: 5#4}"},
    {"string table", "11 09 01 03'a' 06 05'bc' 05'bc' 06 00 01", "EcmaArray#9[9]{a: \"bc\", bc: \"a\"}",
     "11 09 01 03'a' 06 05'bc' 02 06 00 01", 3},
    {"array in itself", "11 09 01 03'a' 09 00 01", "EcmaArray#9[9]{a: EcmaArray#9^1}", nullptr, 3},
    {"object in itself", "11 0A 0B 01 03'a' 0A 00 01", "Amf3#10[10]{constructor: \"\", a: Amf3#10^1}"},
    {"date, xml and bytes by reference",
     "11 09 0D 01 08 01 4059000000000000 08 02 0B 03'x' 0B 04 0C 03 07 0C 06",
     "EcmaArray#9[9]{0: Date#8(100, 0), 1: Date#8(100, 0), 2: Xml#11\"x\", 3: Xml#11\"x\", "
     "4: Memory#12<07>, 5: Memory#12<07>}",
     "11 09 01 03'0' 08 01 4059000000000000 03'1' 08 01 4059000000000000 03'2' 0B 03'x' 03'3' 0B 03'x' "
     "03'4' 0C 03 07 03'5' 0C 03 07 01",
     3},
    {"references to the wrong kind", "11 09 09 01 0A 00 0B 00 08 00 0D 00",
     "EcmaArray#9[9]{0: Undefined, 1: Undefined, 2: Date#8(0, 0), 3: Undefined}",
     "11 09 01 03'0' 00 03'1' 00 03'2' 08 01 00(8) 03'3' 00 01", 3},
    {"reference to a vector", "11 09 05 01 0D 03 00 00000007 0D 02",
     "EcmaArray#9[9]{0: Amf3#13[6]{size: 1, fixed: false, value: 7}, "
     "1: Object[6]{size: 1, fixed: false, value: 7}}",
     "11 09 01 03'0' 0D 03 00 00000007 03'1' 0A 02 01", 3},
    // The table goes on from AMF0 to AMF3 and back: the object is 0, the AMF3 array 1, the last one 2.
    {"tables shared by AMF0 and AMF3",
     "03 0001'a' 11 09 01 01 0001'b' 11 09 02 0001'c' 0A 00000000 0001'd' 07 0002 000009",
     "Object[3]{a: EcmaArray#9[9]{}, b: EcmaArray#9[9]{}, c: EcmaArray[6]{}, d: EcmaArray[6]{}}",
     "03 0001'a' 11 09 01 01 0001'b' 11 09 02 0001'c' 11 09 01 01 0001'd' 11 09 04 000009", 3},
};

TEST(AmfForms, amf0) {
  for (const Form& form : kAmf0) check(form);
}

TEST(AmfForms, amf3) {
  for (const Form& form : kAmf3) check(form);
}

// A value as AMF3, in an array of one entry.
std::string writtenAsAmf3(const KTData& value) {
  KTData array;
  array.setArray(new KTDataArray(), KTData::EcmaArray);
  array.asArray()->append("a", value);
  const std::string bytes = written(array, 3), before = hexOf(bytesOf("11 09 01 03'a'"));
  EXPECT_EQ(bytes.substr(0, before.size()), before);
  return bytes.substr(before.size(), bytes.size() - before.size() - 2);
}

TEST(AmfForms, numbersAtTheBorders) {
  const struct {
    double value;
    const char* bytes;
  } kRows[] = {
      {0, "04 00"},
      {127, "04 7F"},
      {128, "04 8100"},
      {16383, "04 FF7F"},
      {16384, "04 818000"},
      {2097151, "04 FFFF7F"},
      {2097152, "04 80C08000"},
      {268435455, "04 BFFFFFFF"},
      {-1, "04 FFFFFFFF"},
      {-268435456, "04 C0808000"},
      {268435456, "05 41B0000000000000"},
      {-268435457, "05 C1B0000001000000"},
      {0.5, "05 3FE0000000000000"},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(writtenAsAmf3(number(row.value)), hexOf(bytesOf(row.bytes))) << row.value;
    const Bytes bytes = bytesOf(std::string("11") + row.bytes);
    KTCSerializer reader(bytes.data(), static_cast<u32>(bytes.size()), true);
    KTData value;
    reader.readValue(value);
    EXPECT_EQ(value.toDouble(), row.value);
    EXPECT_EQ(writtenAsAmf3(value), hexOf(bytesOf(row.bytes)));
  }
  KTData forced = number(5);
  forced.setSubtype(5);
  EXPECT_EQ(writtenAsAmf3(forced), hexOf(bytesOf("05 4014000000000000")));
}

TEST(AmfForms, textsAtTheBorders) {
  const std::string longest(65'535, 'a');
  EXPECT_EQ(written(text(longest.c_str()), 0), hexOf(bytesOf("02 FFFF 'a'(65535)")));
  EXPECT_EQ(written(text((longest + 'a').c_str()), 0), hexOf(bytesOf("0C 00010000 'a'(65536)")));
  EXPECT_EQ(writtenAsAmf3(text(std::string(63, 'b').c_str())), hexOf(bytesOf("06 7F 'b'(63)")));
  EXPECT_EQ(writtenAsAmf3(text(std::string(64, 'b').c_str())), hexOf(bytesOf("06 8101 'b'(64)")));
  EXPECT_EQ(writtenAsAmf3(text("a")), hexOf(bytesOf("06 00")));
  KTData object;
  object.setArray(new KTDataArray(), KTData::Object);
  object.asArray()->append((longest + "bc").c_str(), boolean(true));  // A key is cut where its length ends.
  EXPECT_EQ(written(object, 0), hexOf(bytesOf("03 FFFF 'a'(65535) 01 01 000009")));
}

// Values that no reader gives.
TEST(AmfForms, valuesOfOurOwn) {
  KTData list, int64, xml, block;
  list.setArray(new KTDataArray(), KTData::StrictArray);
  list.asArray()->append("a", boolean(false));
  EXPECT_EQ(written(list, 0), hexOf(bytesOf("0A 00000001 01 00")));
  list.setType(KTData::TypedObject);
  EXPECT_EQ(written(list, 0), hexOf(bytesOf("10 0006'Object' 0001'a' 01 00 000009")));
  list.setType(KTData::Amf3);
  list.setSubtype(13);  // A record too short for its form.
  EXPECT_EQ(written(list, 0), hexOf(bytesOf("11 0D 01 00")));
  int64.setInt64(1);
  EXPECT_EQ(writtenAsAmf3(int64), "00");
  xml = text("x");
  xml.setType(KTData::Xml);
  EXPECT_EQ(written(xml, 3), hexOf(bytesOf("11 06 03'x'")));
  KTBuffer view(4, nullptr);
  view.append("abcd", 4);
  view.assign(KTMemoryPtr(view.memory), 1, 3);
  block.setMemory(view);
  EXPECT_EQ(written(block, 0), hexOf(bytesOf("20 00000002 'bc'")));
  EXPECT_EQ(written(block, 3), hexOf(bytesOf("11 0C 09 'abcd'")));
}

// The second time a vector goes out as a reference, as any reader of AMF3 expects.
TEST(AmfForms, aVectorWrittenTwice) {
  KTData vector, array;
  vector.setArray(new KTDataArray(), KTData::Amf3);
  vector.setSubtype(13);
  vector.asArray()->append("size", number(1));
  vector.asArray()->append("fixed", boolean(true));
  vector.asArray()->append("value", number(7));
  array.setArray(new KTDataArray(), KTData::EcmaArray);
  array.asArray()->append("a", vector);
  array.asArray()->append("b", vector);
  EXPECT_EQ(written(array, 3), hexOf(bytesOf("11 09 01 03'a' 0D 03 01 00000007 03'b' 0D 02 01")));
}

TEST(AmfForms, anArrayThatNoReferenceReachesIsLeftOut) {
  KTData list;
  list.setArray(new KTDataArray(), KTData::EcmaArray);
  for (u32 i = 0; i < 65'537; ++i) {
    KTData empty;
    empty.setArray(new KTDataArray(), KTData::Object);
    list.asArray()->append("", empty);
  }
  for (const u32 index : {65'534U, 65'535U}) list.asArray()->append("", list.asArray()->valueAt(index));
  KTCSerializer writer;
  writer.writeValue(list);
  EXPECT_TRUE(writer.failed());
  const Bytes end = bytesOf("0000 07 FFFF 0000 06 000009");
  EXPECT_EQ(hexOf(writer.bytes() + writer.length() - end.size(), end.size()), hexOf(end));
}

TEST(KTParser, theBufferGrowsInSteps) {
  const struct {
    u32 count;
    i32 limit;
  } kRows[] = {{300, 1324}, {1024, 1324}, {1, 2648}, {66'000, 68'349}, {2000, 133'885}};
  const Bytes zeros(70'000);
  KTCSerializer writer, small;
  for (const auto& row : kRows) {
    writer.writeBytes(zeros.data(), row.count);
    EXPECT_EQ(writer.limit(), row.limit) << row.count;
  }
  small.writeU8(1);
  EXPECT_EQ(small.limit(), 256);
  EXPECT_EQ(small.readU8(), 0);  // The wrong way round: refused, and what was written stays.
  EXPECT_EQ(small.length(), 1);
  KTCSerializer reader(zeros.data(), 4, false);
  reader.writeU8(1);
  EXPECT_EQ(zeros[0] + reader.position(), 0);
  EXPECT_EQ(std::string(reader.readString(KTParser::kShortText).get()), "");
  EXPECT_EQ(reader.copyBytes(2)[1], 0);
  EXPECT_FALSE(reader.readBytes(1));
  EXPECT_TRUE(reader.failed());
}

}  // namespace
}  // namespace orv::test
