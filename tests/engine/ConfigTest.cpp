// How settings are read and what they change.

#include "EngineTest.h"
#include "modules/streams/flv/FLVAdaptor.h"

namespace orv::test {
namespace {

class ConfigTest : public EngineTest {
 protected:
  flv::FLVAdaptor adaptor{&host};
};

TEST_F(ConfigTest, keysInTheirOrder) {
  const std::vector<std::string> keys{"FrameReserveCheck", "PlayIncompleteFLVs", "RetryCorruptedFLVs",
                                      "MinSegSize",        "MaxSegSize",         "ReadSize",
                                      "MaxFrameScan",      "MaxBackFrameScan",   "AutoBufferReadSize",
                                      "EnableAggMsgs",     "MaxAggMsgSize",      "FrameTypes"};
  EXPECT_EQ(host.askedKeys, keys);
  flv::FLVAdaptor copy(adaptor);
  EXPECT_EQ(host.askedKeys, keys);  // a copy reads nothing again
}

TEST_F(ConfigTest, numbers) {
  const struct {
    const char* text;
    u32 minimum, maximum, result;  // 7 is the default
    int asInt;
  } kNumbers[] = {
      {"100", 100, 200, 100, 100},
      {"200", 100, 200, 200, 200},
      {"99", 100, 200, 7, 99},
      {"201", 100, 200, 7, 201},
      {"-1", 0, 200, 0, -1},
      {"-1", 1, 200, 7, -1},
      {"", 0, 9, 0, 0},
      {"abc", 0, 9, 0, 0},
      {" 5x", 0, 9, 5, 5},
      {"+6", 0, 9, 6, 6},
      {"4294967295", 0, 0xFFFFFFFF, 0x7FFFFFFF, 0x7FFFFFFF},
      {"-9999999999", 0, 9, 0, -0x7FFFFFFF - 1},
  };
  for (const auto& number : kNumbers) {
    host.settings = {{"K", number.text}};
    u32 value = 7;
    int signedValue = 7;
    EXPECT_TRUE(adaptor.readConfigUnsigned("K", value, number.minimum, number.maximum)) << number.text;
    EXPECT_TRUE(adaptor.readConfigInt("K", signedValue)) << number.text;
    EXPECT_EQ(value, number.result) << number.text;
    EXPECT_EQ(signedValue, number.asInt) << number.text;
    EXPECT_FALSE(adaptor.readConfigUnsigned("none", value, 0, 9) ||
                 adaptor.readConfigInt("none", signedValue));
    EXPECT_EQ(value, number.result);
  }
}

TEST_F(ConfigTest, words) {
  for (const auto& [text, fromTrue, fromFalse] :
       std::vector<std::tuple<const char*, bool, bool>>{{"true", true, true},
                                                        {"false", false, false},
                                                        {"TRUE", true, false},
                                                        {"False", true, false},
                                                        {"0", true, false},
                                                        {"", true, false},
                                                        {"false ", true, false}}) {
    host.settings = {{"K", text}};
    bool yes = true, no = false;
    EXPECT_TRUE(adaptor.readConfigBool("K", yes) && adaptor.readConfigBool("K", no));
    EXPECT_TRUE(yes == fromTrue && no == fromFalse) << text;
    EXPECT_FALSE(adaptor.readConfigBool("none", yes));
  }
}

TEST_F(ConfigTest, roomForLongTexts) {
  host.settings = {{"fits", std::string(63, 'x')}, {"long", std::string(64, 'y')}, {"empty", ""}};
  for (const auto& [key, room] : std::map<std::string, u32>{{"fits", 64}, {"long", 65}, {"empty", 64}}) {
    char* block = static_cast<char*>(std::malloc(64));
    u32 size = 64;
    EXPECT_TRUE(adaptor.readConfig(key.c_str(), &block, size)) << key;
    EXPECT_EQ(block, host.settings[key]);
    EXPECT_EQ(size, room);
    EXPECT_FALSE(adaptor.readConfig("none", &block, size) || adaptor.readConfig(nullptr, &block, size));
    std::free(block);
  }
  char* none = nullptr;
  u32 size = 0;
  EXPECT_FALSE(adaptor.readConfig("fits", &none, size) || adaptor.readConfig("fits", nullptr, size));

  struct Greedy final : TestContext {  // never satisfied
    IFileService* getFileService() override { return nullptr; }
    int getConfigValue(const char*, char**, u32 room) override { return static_cast<int>(room + 100); }
  } greedy;
  bool value = true;
  EXPECT_FALSE(flv::FLVAdaptor(&greedy).readConfigBool("K", value));
}

TEST_F(ConfigTest, frameTypes) {
  const std::set<u8> kDefault{8, 9, 15, 17, 18, 20, 40, 41, 47, 49, 50, 52};
  const std::pair<const char*, std::set<u8>> kTexts[] = {
      {nullptr, kDefault},
      {"", kDefault},
      {"  ", kDefault},
      {"9 8", {8, 9}},
      {"265", {9}},
      {"x  12 -1", {0, 12, 255}},
      {"1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22 23 24 25 26 27 28",
       {1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 13, 14,
        15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28}},
  };
  for (const auto& [text, types] : kTexts) {
    configure(text ? Settings{{"FrameTypes", text}} : Settings{});
    for (u32 type = 0; type < 256; ++type)
      EXPECT_EQ(bool(open(FlvBuilder().tag(static_cast<u8>(type), 1, 9))),
                types.contains(static_cast<u8>(type)))
          << (text ? text : "default") << ": " << type;
  }
}

}  // namespace
}  // namespace orv::test
