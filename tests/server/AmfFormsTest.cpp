// The wire forms: bytes to value, and the value to bytes again.

#include <gtest/gtest.h>

#include <regex>

#include "ServerTest.h"
#include "support/HeapWatch.h"
#include "util/KTThrowable.h"

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

// Cycles hold while their reader does; then each reference to an array around it becomes Undefined, and what
// the caller still has is freed with it.
void check(const AmfCase& form) {
  SCOPED_TRACE(form.section + ' ' + form.name);
  const int encoding = form.section == "amf3" ? 3 : 0;
  const Bytes bytes = bytesOf(form.bytes);
  Bytes torn = bytes;
  torn.push_back(0xFF);
  const std::string cut = std::regex_replace(form.value, std::regex("[A-Za-z0-9#]+\\^[0-9]"), "Undefined");
  const HeapWatch heap;
  {
    KTData value;
    {
      KTCSerializer reader = readerOf(bytes);
      reader.readValue(value, true);
      EXPECT_FALSE(reader.failed());
      EXPECT_EQ(reader.remaining(), 0U);
      EXPECT_EQ(describe(value), form.value);
      EXPECT_EQ(written(value, encoding), hex(form.written));
    }
    EXPECT_EQ(describe(value), cut);
  }
  EXPECT_EQ(heap->live, 0U);
  EXPECT_THROW(commandOf(flv::kTypeDataAmf0, torn, true), KTBreakConnection);
  EXPECT_EQ(heap->live, 0U);
}

// What the value holds in which the bytes end.
void checkCut(const AmfCase& form) {
  SCOPED_TRACE(form.name);
  const Bytes bytes = bytesOf(form.bytes);
  KTCSerializer reader = readerOf(bytes), strict = readerOf(bytes, true);
  KTData value;
  reader.readValue(value);
  EXPECT_TRUE(reader.failed());
  EXPECT_EQ(reader.position(), reader.limit());
  EXPECT_EQ(describe(value), form.value);
  EXPECT_THROW(strict.readValue(value), KTBreakConnection);
}

TEST(AmfForms, readAndWritten) {
  const std::vector<AmfCase> cases = amfCases();
  EXPECT_GT(cases.size(), 100U);
  for (const AmfCase& form : cases) form.section == "cut" ? checkCut(form) : check(form);
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

// What a dropped value added to the tables is forgotten, and their indices with it.
TEST(AmfForms, aValueDroppedForWantOfMemoryLeavesNoTrace) {
  const KTData first = container(KTData::EcmaArray), second = container(KTData::EcmaArray);
  for (const KTData& list : {first, second}) {
    for (u32 i = 0; i < 140; ++i) {
      const std::string word = "word " + std::to_string(list == first ? i : 139 - i % 70);
      list.asArray()->append("", text(word.c_str()));
      if (i == 100) list.asArray()->append("", container(KTData::EcmaArray));
    }
  }
  KTData block;
  block.setMemory(KTBuffer(70'000, nullptr));
  first.asArray()->append("", block);
  const std::string expected = written(second, 3);
  u32 dropped = 0;
  bool fired = true;
  for (std::size_t n = 1; fired; ++n) {
    HeapWatch heap;
    KTCSerializer writer;
    writer.setEncoding(3);
    heap.failAt(n);
    try {
      writer.writeValue(first);
    } catch (const std::bad_alloc&) {
      continue;
    }
    fired = !heap.failurePending();
    heap.failAt(0);
    if (!writer.failed()) continue;
    ++dropped;
    EXPECT_EQ(writer.length(), 0);
    writer.writeValue(second);
    EXPECT_EQ(hexOf(bytesIn(writer)), expected) << n;
  }
  EXPECT_GT(dropped, 0U);
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
