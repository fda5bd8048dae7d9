// How settings are read and what they change.

#include <sstream>

#include "EngineTest.h"
#include "modules/streams/flv/FLVAdaptor.h"

namespace orv::test {
namespace {

class ConfigTest : public EngineTest {
 protected:
  flv::FLVAdaptor adaptor{&host};
};

// Each size with its default and its bounds, as the adaptor asks for it.
class AskedSizes final : public flv::FLVAdaptor {
 public:
  using FLVAdaptor::FLVAdaptor;
  std::vector<std::string> lines;

  bool readConfigUnsigned(const char* key, u32& value, u32 minimum, u32 maximum) override {
    std::ostringstream line;
    line << std::hex << key << ' ' << value << ' ' << minimum << ' ' << maximum;
    lines.push_back(line.str());
    return FLVAdaptor::readConfigUnsigned(key, value, minimum, maximum);
  }
};

TEST_F(ConfigTest, keysInTheirOrder) {
  const std::vector<std::string> keys{
      "FrameReserveCheck", "PlayIncompleteFLVs", "RetryCorruptedFLVs", "MinSegSize",         "MaxSegSize",
      "ReadSize",          "MaxFrameScan",       "MaxBackFrameScan",   "AutoBufferReadSize", "EnableAggMsgs",
      "MaxAggMsgSize",     "FrameTypes",         "RecordCodecs"};
  EXPECT_EQ(host.askedKeys, keys);
  flv::FLVAdaptor copy(adaptor);
  EXPECT_EQ(host.askedKeys, keys);  // a copy reads nothing again

  const auto linesFor = [](const std::string& minSegSize) {
    return std::vector<std::string>{"MinSegSize 20000 20000 ffffffff",
                                    "MaxSegSize 40000 " + minSegSize + " ffffffff",
                                    "ReadSize 4000 4000 ffffffff",
                                    "MaxFrameScan 1000000 " + minSegSize + " 1000000",
                                    "MaxBackFrameScan 400000 " + minSegSize + " 1000000",
                                    "AutoBufferReadSize 48000 400 ffffffff",
                                    "MaxAggMsgSize 10000 0 ffffffff"};
  };
  for (const auto& [text, minSegSize] : {std::pair("131071", "20000"), {"8388608", "800000"}}) {
    host.settings = {{"MinSegSize", text}};
    AskedSizes asked(&host);
    host.settings.clear();
    asked.config();
    auto expected = linesFor(minSegSize);
    expected[0].replace(11, 5, minSegSize);
    EXPECT_EQ(asked.lines, expected);
  }
}

TEST_F(ConfigTest, textsAsNumbersAndWords) {
  const struct {
    const char* text;
    u32 asUnsigned;  // 100 to 200, by default 150
    int asInt;
    bool fromTrue = true, fromFalse = false;
  } kTexts[] = {
      {"100", 100, 100},
      {"200", 200, 200},
      {"99", 150, 99},
      {"201", 150, 201},
      {"-1", 150, -1},
      {" 105x", 105, 105},
      {"4294967396", 150, 0x7FFFFFFF},  // 100 above 32 bits
      {"-9999999999", 150, -0x7FFFFFFF - 1},
      {"true", 150, 0, true, true},
      {"false", 150, 0, false, false},
      {"TRUE", 150, 0},
      {"False", 150, 0},
  };
  for (const auto& [text, asUnsigned, asInt, fromTrue, fromFalse] : kTexts) {
    u32 size = 150;
    int number = 7;
    bool yes = true, no = false;
    for (const bool known : {true, false}) {  // a missing text changes nothing
      host.settings = {{known ? "K" : "other", text}};
      EXPECT_EQ(adaptor.readConfigUnsigned("K", size, 100, 200), known);
      EXPECT_EQ(adaptor.readConfigInt("K", number), known);
      EXPECT_EQ(adaptor.readConfigBool("K", yes) && adaptor.readConfigBool("K", no), known);
    }
    EXPECT_EQ(size, asUnsigned) << text;
    EXPECT_EQ(number, asInt) << text;
    EXPECT_TRUE(yes == fromTrue && no == fromFalse) << text;
  }
}

TEST_F(ConfigTest, roomForLongTexts) {
  host.settings = {{"K", std::string(64, 'x')}};
  char* block = static_cast<char*>(std::malloc(64));
  char* none = nullptr;
  u32 size = 64;
  EXPECT_FALSE(adaptor.readConfig("none", &block, size) || adaptor.readConfig(nullptr, &block, size) ||
               adaptor.readConfig("K", &none, size) || adaptor.readConfig("K", nullptr, size));
  EXPECT_TRUE(adaptor.readConfig("K", &block, size));
  EXPECT_EQ(block, host.settings["K"]);
  EXPECT_EQ(size, 65u);
  std::free(block);

  struct Greedy final : TestContext {  // never satisfied
    IFileService* getFileService() override { return nullptr; }
    int getConfigValue(const char*, char**, u32 room) override { return static_cast<int>(room + 100); }
  } greedy;
  bool value = true;
  EXPECT_FALSE(flv::FLVAdaptor(&greedy).readConfigBool("K", value));
}

TEST_F(ConfigTest, frameTypes) {
  const std::set<u8> kDefault{8, 9, 15, 17, 18, 20, 40, 41, 47, 49, 50, 52};
  const std::pair<Settings, std::set<u8>> kTexts[] = {
      {{}, kDefault},
      {{{"FrameTypes", ""}}, kDefault},
      {{{"FrameTypes", "  "}}, kDefault},
      {{{"FrameTypes", "265 x  12 -1"}}, {9, 0, 12, 255}},
      {{{"FrameTypes", std::string(99, ' ') + "8"}}, {8}},
  };
  for (const auto& [settings, types] : kTexts) {
    configure(settings);
    for (u32 type = 0; type < 256; ++type)
      EXPECT_EQ(bool(open(FlvBuilder().tag(static_cast<u8>(type), 1, 9))),
                types.contains(static_cast<u8>(type)))
          << testing::PrintToString(settings) << ": " << type;
  }
}

}  // namespace
}  // namespace orv::test
