#include "host/flv/AmfJson.h"

#include <gmock/gmock.h>

#include "support/AmfText.h"

namespace orv::host {
namespace {

using nlohmann::json;
using orv::test::Bytes;
using orv::test::bytesOf;

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
}  // namespace orv::host
