// The wire forms: bytes to value, and the value to bytes again.

#include <gtest/gtest.h>

#include "ServerTest.h"

namespace orv::test {
namespace {

std::string hex(const std::string& text) {
  return hexOf(bytesOf(text));
}

std::string written(const KTData& value, int encoding) {
  KTCSerializer writer;
  writer.setEncoding(encoding);
  writer.writeValue(value);
  EXPECT_FALSE(writer.failed());
  return hexOf(bytesIn(writer));
}

struct Form {
  const char* name;
  const char* bytes;
  const char* value;
  const char* written = nullptr;  // Null: the same bytes.
  int encoding = 0;
};

void check(const Form& form) {
  SCOPED_TRACE(form.name);
  const Bytes bytes = bytesOf(form.bytes);
  KTCSerializer reader = readerOf(bytes);
  KTData value;
  reader.readValue(value);
  EXPECT_FALSE(reader.failed());
  EXPECT_EQ(reader.remaining(), 0U);
  EXPECT_EQ(describe(value), form.value);
  EXPECT_EQ(written(value, form.encoding), hex(form.written ? form.written : form.bytes));
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
    // Integers at the borders of each length.
    {"0", "11 09 01 03'a' 04 00 01", "EcmaArray#9[9]{a: 0#4}", nullptr, 3},
    {"127", "11 09 01 03'a' 04 7F 01", "EcmaArray#9[9]{a: 127#4}", nullptr, 3},
    {"128", "11 09 01 03'a' 04 8100 01", "EcmaArray#9[9]{a: 128#4}", nullptr, 3},
    {"16383", "11 09 01 03'a' 04 FF7F 01", "EcmaArray#9[9]{a: 16383#4}", nullptr, 3},
    {"16384", "11 09 01 03'a' 04 818000 01", "EcmaArray#9[9]{a: 16384#4}", nullptr, 3},
    {"2097151", "11 09 01 03'a' 04 FFFF7F 01", "EcmaArray#9[9]{a: 2097151#4}", nullptr, 3},
    {"2097152", "11 09 01 03'a' 04 80C08000 01", "EcmaArray#9[9]{a: 2097152#4}", nullptr, 3},
    {"268435455", "11 09 01 03'a' 04 BFFFFFFF 01", "EcmaArray#9[9]{a: 268435455#4}", nullptr, 3},
    {"-1", "11 09 01 03'a' 04 FFFFFFFF 01", "EcmaArray#9[9]{a: -1#4}", nullptr, 3},
    {"-268435456", "11 09 01 03'a' 04 C0808000 01", "EcmaArray#9[9]{a: -268435456#4}", nullptr, 3},
    {"double that an integer could tell", "11 09 01 03'a' 05 4014000000000000 01", "EcmaArray#9[9]{a: 5#5}",
     nullptr, 3},
    {"string", "11 06 05'ab'", "\"ab\"", "02 0002 'ab'"},
    {"empty string", "11 06 01", "\"\"", "02 0000"},
    {"date", "11 08 01 4059000000000000", "Date#8(100, 0)", nullptr, 3},
    {"xml document", "11 07 03'x'", "Xml#7\"x\"", nullptr, 3},
    {"xml", "11 0B 03'x'", "Xml#11\"x\"", nullptr, 3},
    {"byte array", "11 0C 05 0102", "Memory#12<0102>", nullptr, 3},
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
    {"string table, without the empty one", "11 09 01 03'a' 06 01 05'bc' 06 00 03'd' 06 02 01",
     "EcmaArray#9[9]{a: \"\", bc: \"a\", d: \"bc\"}", nullptr, 3},
    {"key by reference", "11 09 01 03'a' 06 05'bc' 02 06 00 01", "EcmaArray#9[9]{a: \"bc\", bc: \"a\"}",
     nullptr, 3},
    {"reference past date, xml and bytes",
     "11 09 01 03'a' 08 01 00(8) 03'b' 0B 03'x' 03'c' 0C 03 07 03'd' 09 01 01 03'e' 09 08 01",
     "EcmaArray#9[9]{a: Date#8(0, 0), b: Xml#11\"x\", c: Memory#12<07>, d: EcmaArray#9[9]{}, e: "
     "EcmaArray#9[9]{}}",
     nullptr, 3},
    {"array in itself", "11 09 01 03'a' 09 00 01", "EcmaArray#9[9]{a: EcmaArray#9^1}", nullptr, 3},
    {"object in itself", "11 0A 0B 01 03'a' 0A 00 01", "Amf3#10[10]{constructor: \"\", a: Amf3#10^1}"},
    {"date, xml and bytes by reference",
     "11 09 0D 01 08 01 4059000000000000 08 02 0B 03'x' 0B 04 0C 03 07 0C 06",
     "EcmaArray#9[9]{0: Date#8(100, 0), 1: Date#8(100, 0), 2: Xml#11\"x\", 3: Xml#11\"x\", "
     "4: Memory#12<07>, 5: Memory#12<07>}",
     "11 09 01 03'0' 08 01 4059000000000000 03'1' 08 01 4059000000000000 03'2' 0B 03'x' 03'3' 0B 03'x' "
     "03'4' 0C 03 07 03'5' 0C 03 07 01",
     3},
    {"references to the wrong kind", "11 09 0B 01 0A 00 0B 00 08 00 0D 00 11 00",
     "EcmaArray#9[9]{0: Undefined, 1: Undefined, 2: Date#8(0, 0), 3: Undefined, 4: Undefined}",
     "11 09 01 03'0' 00 03'1' 00 03'2' 08 01 00(8) 03'3' 00 03'4' 00 01", 3},
    {"object where an array is referred to", "11 0A 0B 01 03'a' 09 00 01",
     "Amf3#10[10]{constructor: \"\", a: Undefined}", "11 0A 0B 01 03'a' 00 01"},
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

// Values that no reader gives, and numbers and texts around the borders where their form changes.
TEST(AmfForms, valuesOfOurOwn) {
  const std::string longest(65'535, 'a'), key = longest + "bc";
  const std::string text63(63, 'b'), text64(64, 'b');
  KTData record = container(KTData::Amf3, {{"a", boolean(false)}});  // Too short for its form.
  record.setSubtype(13);
  KTData vector =
      container(KTData::Amf3, {{"size", number(1)}, {"fixed", boolean(true)}, {"value", number(7)}});
  vector.setSubtype(13);
  KTData int64, xml = text("x"), block;
  int64.setInt64(1);
  xml.setType(KTData::Xml);
  KTBuffer view(4, nullptr);
  view.append("abcd", 4);
  view.assign(KTMemoryPtr(view.memory), 1, 3);
  block.setMemory(view);
  const struct {
    KTData value;
    int encoding;
    const char* bytes;
  } kRows[] = {
      {container(KTData::StrictArray, {{"a", boolean(false)}}), 0, "0A 00000001 01 00"},
      {container(KTData::TypedObject, {{"a", boolean(false)}}), 0, "10 0006'Object' 0001'a' 01 00 000009"},
      {record, 0, "11 0D 01 00"},
      // The second time a vector goes out as a reference, as any reader of AMF3 expects.
      {container(KTData::EcmaArray, {{"a", vector}, {"b", vector}}), 3,
       "11 09 01 03'a' 0D 03 01 00000007 03'b' 0D 02 01"},
      {container(KTData::EcmaArray, {{"a", int64}}), 3, "11 09 01 03'a' 00 01"},
      {xml, 3, "11 06 03'x'"},
      {block, 0, "20 00000002 'bc'"},
      {block, 3, "11 0C 09 'abcd'"},
      {container(KTData::EcmaArray, {{"a", number(-268435456)}, {"b", number(-268435457)}}), 3,
       "11 09 01 03'a' 04 C0808000 03'b' 05 C1B0000001000000 01"},
      {container(KTData::EcmaArray, {{"a", number(268435455)}, {"b", number(268435456)}}), 3,
       "11 09 01 03'a' 04 BFFFFFFF 03'b' 05 41B0000000000000 01"},
      {container(KTData::EcmaArray, {{"a", number(0.5)}}), 3, "11 09 01 03'a' 05 3FE0000000000000 01"},
      {text(longest.c_str()), 0, "02 FFFF 'a'(65535)"},
      {text((longest + 'a').c_str()), 0, "0C 00010000 'a'(65536)"},
      {container(KTData::EcmaArray, {{"a", text(text63.c_str())}, {"b", text(text64.c_str())}}), 3,
       "11 09 01 03'a' 06 7F 'b'(63) 03'b' 06 8101 'b'(64) 01"},
      // A key is cut where its length ends.
      {container(KTData::Object, {{key.c_str(), boolean(true)}}), 0, "03 FFFF 'a'(65535) 01 01 000009"},
      {container(KTData::Object, {{key.c_str(), number(0)}}), 0, "03 FFFF 'a'(65535) 00 00(8) 000009"},
  };
  for (const auto& row : kRows) EXPECT_EQ(written(row.value, row.encoding), hex(row.bytes));
}

TEST(AmfForms, anArrayThatNoReferenceReachesIsLeftOut) {
  const KTData list = container(KTData::EcmaArray);
  for (u32 i = 0; i < 65'537; ++i) list.asArray()->append("", container(KTData::Object));
  for (const u32 index : {65'534U, 65'535U}) list.asArray()->append("", list.asArray()->valueAt(index));
  KTCSerializer writer;
  writer.writeValue(list);
  EXPECT_TRUE(writer.failed());
  EXPECT_TRUE(hexOf(bytesIn(writer)).ends_with(hex("0000 07 FFFF 0000 06 000009")));
}

// With more than 64 entries a table is searched in another way.
TEST(AmfForms, longTablesAndTheirEnd) {
  const KTData list = container(KTData::EcmaArray);
  for (u32 i = 0; i < 66; ++i)
    list.asArray()->append(std::to_string(i).c_str(), container(KTData::EcmaArray));
  for (const u32 i : {0U, 65U}) list.asArray()->append(std::to_string(i).c_str(), list.asArray()->valueAt(i));
  KTCSerializer writer;
  writer.setEncoding(3);
  for (int round = 0; round < 2; ++round) {
    writer.writeValue(list, true);
    EXPECT_TRUE(hexOf(bytesIn(writer)).ends_with(hex("00 09 02 8102 09 8104 01")));
  }
  const Bytes bytes = bytesOf("11 0A 13 01 03'a' 01 11 0A 01 01");  // The second value refers to a class.
  for (const bool reset : {false, true}) {
    KTCSerializer reader = readerOf(bytes);
    KTData first, second;
    reader.readValue(first, reset);
    reader.readValue(second);
    EXPECT_EQ(reader.failed(), reset);
  }
}

TEST(KTParser, theBufferGrowsInSteps) {
  const struct {
    u32 count;
    i32 limit;
  } kRows[] = {{1, 256}, {299, 512}, {724, 1024}, {1, 2048}, {66'000, 68'049}, {1500, 133'585}};
  const Bytes zeros(70'000);
  KTCSerializer writer;
  for (const auto& row : kRows) {
    writer.writeBytes(zeros.data(), row.count);
    EXPECT_EQ(writer.limit(), row.limit) << row.count;
  }
}

TEST(KTParser, theWrongWayRoundNothingHappens) {
  KTCSerializer writer;
  writer.writeU8(1);
  EXPECT_EQ(writer.readU8(), 0);
  EXPECT_EQ(writer.length(), 1);
  const Bytes zeros(4);
  KTCSerializer reader = readerOf(zeros);
  reader.writeU8(1);
  EXPECT_EQ(zeros[0] + reader.position(), 0);
  EXPECT_EQ(std::string(reader.readString(KTParser::kShortText).get()), "");
  EXPECT_EQ(reader.copyBytes(2)[1], 0);
  EXPECT_FALSE(reader.readBytes(1));
  EXPECT_TRUE(reader.failed());
}

}  // namespace
}  // namespace orv::test
