#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "ServerTest.h"
#include "support/HeapWatch.h"

namespace orv::test {
namespace {

KTData int64(i64 value) {
  KTData data;
  data.setInt64(value);
  return data;
}

KTData date(double milliseconds, i32 timezone) {
  KTData data;
  data.setDate(milliseconds, timezone);
  return data;
}

constexpr i64 kLeast = std::numeric_limits<i64>::min();

TEST(KTData, everyReaderAnswersForEveryType) {
  const struct {
    KTData value;
    bool asBool;
    i32 asInt;
    i64 asInt64;
    double asDouble;
    const char* asText;
  } kRows[] = {
      {KTData(), false, 0, 0, 0, ""},
      {number(1), false, 1, 1, 1, "1"},
      {number(-1.9), false, -1, -1, -1.9, "-1.8999999999999999"},
      {number(4294967297.0), false, 1, 4294967297, 4294967297.0, "4294967297"},
      {number(1e300), false, 0, kLeast, 1e300, "1.0000000000000001e+300"},
      {boolean(true), true, 1, 1, 1, "true"},
      {boolean(false), false, 0, 0, 0, "false"},
      {text("12ab"), false, 12, 12, 12, "12ab"},
      {text("1.5e3"), false, 1, 1500, 1500, "1.5e3"},
      {text("99999999999"), false, 2147483647, 99999999999, 99999999999.0, "99999999999"},
      {date(1500, 60), false, 0, 0, 1.5, ""},
      {int64(-5), false, 0, -5, 0, ""},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(describe(row.value));
    const bool isText = row.value.type() == KTData::String;
    EXPECT_EQ(row.value.toBool(), row.asBool);
    EXPECT_EQ(row.value.toInt(), row.asInt);
    EXPECT_EQ(row.value.toInt64(), row.asInt64);
    EXPECT_EQ(row.value.toDouble(), row.asDouble);
    EXPECT_STREQ(row.value.asString(), isText ? row.asText : "");
    EXPECT_EQ(row.value.stringLength(), isText ? static_cast<i32>(std::strlen(row.asText)) : -1);
    EXPECT_EQ(row.value.asArray(), nullptr);
    EXPECT_FALSE(row.value.memoryRange().memory);
    KTData shown;
    row.value.toText(shown);
    EXPECT_EQ(shown, text(row.asText));
  }
  EXPECT_EQ(number(std::nan("")).toInt64(), kLeast);
}

TEST(KTData, setters) {
  KTData value = text("old");
  value.setSubtype(5);
  value.setString(u"\u00e9");
  EXPECT_EQ(describe(value), "\"\u00e9\"");
  value.takeString(new char[3]{'a', 'b', 0});
  EXPECT_EQ(describe(value), "\"ab\"");
  value.setType(KTData::Xml);
  EXPECT_EQ(describe(value), "Xml\"ab\"");
  EXPECT_EQ(value.stringLength(), -1);
  value.setString(value.asString() + 1);
  EXPECT_EQ(describe(value), "\"b\"");
  value.setDateSeconds(1.5, -60);
  EXPECT_EQ(describe(value), "Date(1500, -60)");
  value.setSubtype(KTData::kNoSubtype + 1);
  value.setType(KTData::String);
  EXPECT_EQ(describe(value), "\"\"#7");
  KTBuffer view(4, nullptr);
  view.append("abcd", 4);
  view.assign(KTMemoryPtr(view.memory), 1, 3);
  value.setMemory(view);
  const KTData copy = value;
  value.setMemory(KTBuffer());
  EXPECT_EQ(describe(copy) + describe(value), "Memory<6263>Memory<none>");
  value.clear();
  EXPECT_EQ(describe(value), "Undefined");
}

TEST(KTData, compare) {
  const KTData one = container(KTData::Object), nan = number(std::nan(""));
  KTData sameAsList = one, xml = text("a"), null;
  sameAsList.setType(KTData::EcmaArray);
  xml.setType(KTData::Xml);
  null.setNull();
  const struct {
    KTData a, b;
    i32 order;
  } kRows[] = {
      {number(1), number(2), -1},
      {number(2), number(1), 1},
      {number(1), number(1), 0},
      {nan, nan, 1},
      {number(1), boolean(true), 2},
      {text("a"), text("b"), -1},
      {text("a"), text("a"), 0},
      {text("a"), xml, 2},
      {boolean(false), boolean(true), -1},
      {null, null, 0},
      {KTData(), KTData(), 0},
      {date(1, 0), date(1, 60), 2},
      {date(1, 0), date(2, 0), -1},
      {int64(1), int64(1), 2},
      {one, one, 0},
      {one, sameAsList, 2},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(KTData::compare(row.a, row.b), row.order) << describe(row.a) << ' ' << describe(row.b);
  }
  EXPECT_FALSE(one == container(KTData::Object));
}

TEST(KTData, keepsWhatItHoldsWhenAssignedToItselfOrToAPartOfItself) {
  KTData value = container(KTData::Object, {{"inner", container(KTData::Object)}});
  const KTData& same = value;
  value = same;
  EXPECT_EQ(describe(value), "Object[6]{inner: Object[6]{}}");
  value = value.asArray()->valueAt(0);
  EXPECT_EQ(describe(value), "Object[6]{}");
  value = container(KTData::Object, {{"inner", value}});
  value.setArray(value.asArray()->valueAt(0).asArray(), KTData::EcmaArray);
  EXPECT_EQ(describe(value), "EcmaArray[6]{}");
}

TEST(KTDataArray, entriesAreReplacedAppendedAndFilledUp) {
  const KTData value = container(KTData::Object);
  KTDataArray* const list = value.asArray();
  const KTDataArray& read = *list;
  list->set(2, "c", number(3));
  list->set(0, "A", number(1));
  EXPECT_EQ(describe(value), "Object[6]{A: 1, : Undefined, c: 3}");
  EXPECT_EQ(describe(read.valueAt(9)), "Undefined");
  EXPECT_STREQ(read.keyAt(9).c_str(), "");
  list->append("a", read.valueAt(0));
  EXPECT_EQ(list->find("C").toInt(), 3);
  EXPECT_EQ(&list->find("a"), &read.valueAt(0));
  EXPECT_EQ(list->find("b").type(), KTData::Undefined);
  EXPECT_EQ(list->find(nullptr).type(), KTData::Undefined);
  list->valueAt(5) = number(6);
  list->keyAt(6) = "end";
  EXPECT_EQ(describe(value), "Object[6]{A: 1, : Undefined, c: 3, a: 1, : Undefined, : 6, end: Undefined}");
}

// Whatever form the keys are kept in, they read the same.
TEST(KTDataArray, keysStayWhatTheyAre) {
  const KTDataArrayPtr list(new KTDataArray(1));
  for (u32 i = 0; i < 12; ++i) list->appendElement(number(i));
  EXPECT_TRUE(list->hasIndexKeys());
  EXPECT_EQ(list->find("11").toInt(), 11);
  list->append("12", KTData());
  EXPECT_TRUE(list->hasIndexKeys());
  const KTDataArrayPtr indices(new KTDataArray(*list));
  list->append("x", KTData());
  list->appendElement(KTData());
  EXPECT_FALSE(list->hasIndexKeys());
  const KTDataArrayPtr packed(new KTDataArray(*list));
  EXPECT_STREQ(list->keyAt(11).c_str(), "11");  // Strings from here on.
  const char* const kEnd[] = {"12", "x", "14"};
  for (u32 i = 0; i < 3; ++i) {
    IndexText indexText;
    EXPECT_EQ(list->keyText(12 + i, indexText), kEnd[i]);
    EXPECT_EQ(packed->keyText(12 + i, indexText), kEnd[i]);
  }
  EXPECT_TRUE(list->sameShape(*packed));
  EXPECT_FALSE(list->sameShape(*indices));
  list->keyAt(13) = "X";
  EXPECT_FALSE(list->sameShape(*packed));
  packed->keyAt(13) = "X";
  packed->setType(8);
  EXPECT_FALSE(list->sameShape(*packed));
}

// A chain is taken down from either end without recursion, and arrays that others hold stay.
TEST(KTDataArray, deepTreesAreTakenDown) {
  constexpr u32 kDepth = 200'000;
  const HeapWatch heap;
  {
    KTDataArrayPtr kept(new KTDataArray(1));
    KTData chain;
    chain.setArray(kept.get(), KTData::Object);
    const KTDataArrayPtr all(new KTDataArray(1));
    for (u32 i = 0; i < kDepth; ++i) {
      KTData outer = container(KTData::Object, {{"", chain}});
      if (i >= kDepth / 2) all->append("", outer);
      chain.swap(outer);
    }
    chain.clear();
    EXPECT_EQ(kept->getRefCount(), 2);
    all->valueAt(all->size() - 1).clear();
    EXPECT_EQ(kept->getRefCount(), 2);
  }
  EXPECT_EQ(heap->live, 0U);
}

}  // namespace
}  // namespace orv::test
