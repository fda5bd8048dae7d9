// How an adaptor reads its settings: text by key, a bad or missing value keeps the default.

#include <cstdlib>
#include <cstring>
#include <memory>

#include "modules/streams/flv/FLVAdaptor.h"
#include "platform/Numbers.h"

namespace orv::flv {
namespace {

constexpr u32 kUsualSize = 64;
// No setting is that long: a host that asks for more room gets none.
constexpr u32 kMaxSize = 0x100000;

// A zeroed malloc block, with one byte behind its `size` that no host writes: the text always ends.
class SettingText {
 public:
  SettingText() : block_(static_cast<char*>(std::calloc(kUsualSize + 1, 1))) {}
  ~SettingText() { std::free(block_); }
  SettingText(const SettingText&) = delete;
  SettingText& operator=(const SettingText&) = delete;

  bool read(FLVAdaptor& adaptor, const char* key) { return adaptor.readConfig(key, &block_, size_); }
  char* text() const { return block_; }
  bool is(const char* word) const { return std::strcmp(block_, word) == 0; }

 private:
  char* block_;
  u32 size_ = kUsualSize;
};

}  // namespace

void FLVAdaptor::config() {
  constexpr u32 kNoLimit = 0xFFFFFFFF;
  constexpr u32 kMaxScan = 0x1000000;
  FLVConfig& c = configuration;
  readConfigBool("FrameReserveCheck", c.frameReserveCheck);
  readConfigBool("PlayIncompleteFLVs", c.playIncompleteFLVs);
  readConfigInt("RetryCorruptedFLVs", c.retryCorruptedFLVs);
  // First of the sizes: its new value bounds the next three.
  readConfigUnsigned("MinSegSize", c.minSegSize, 0x20000, kNoLimit);
  readConfigUnsigned("MaxSegSize", c.maxSegSize, c.minSegSize, kNoLimit);
  readConfigUnsigned("ReadSize", c.readSize, 16384, kNoLimit);
  readConfigUnsigned("MaxFrameScan", c.maxFrameScan, c.minSegSize, kMaxScan);
  readConfigUnsigned("MaxBackFrameScan", c.maxBackFrameScan, c.minSegSize, kMaxScan);
  readConfigUnsigned("AutoBufferReadSize", c.autoBufferReadSize, 1024, kNoLimit);
  readConfigBool("EnableAggMsgs", c.enableAggMsgs);
  readConfigUnsigned("MaxAggMsgSize", c.maxAggMsgSize, 0, kNoLimit);
  readFrameTypes();
  SettingText codecs;
  if (codecs.read(*this, "RecordCodecs")) c.recordAllCodecs = codecs.is("all");
}

bool FLVAdaptor::readConfig(const char* key, char** value, u32& size) {
  if (!key || !value || !*value) return false;
  const int room = context->getConfigValue(key, value, size);
  if (room <= 0) return room == 0;
  if (static_cast<u32>(room) > kMaxSize) return false;
  size = static_cast<u32>(room);
  void* const larger = std::realloc(*value, size_t{size} + 1);
  if (!larger) return false;
  *value = static_cast<char*>(larger);
  std::memset(*value, 0, size_t{size} + 1);
  return context->getConfigValue(key, value, size) == 0;
}

// The default decides: only the exact opposite word changes it.
bool FLVAdaptor::readConfigBool(const char* key, bool& value) {
  SettingText setting;
  if (!setting.read(*this, key)) return false;
  value = value ? !setting.is("false") : setting.is("true");
  return true;
}

bool FLVAdaptor::readConfigInt(const char* key, int& value) {
  SettingText setting;
  if (!setting.read(*this, key)) return false;
  value = platform::parseInt32(setting.text());
  return true;
}

bool FLVAdaptor::readConfigUnsigned(const char* key, u32& value, u32 minimum, u32 maximum) {
  SettingText setting;
  if (!setting.read(*this, key)) return false;
  const i32 number = platform::parseInt32(setting.text());
  const u32 wanted = number < 0 ? 0 : static_cast<u32>(number);
  if (wanted >= minimum && wanted <= maximum) value = wanted;
  return true;
}

// A text without a single number leaves the defaults: with no types at all no file could be opened.
void FLVAdaptor::readFrameTypes() {
  SettingText setting;
  if (!setting.read(*this, "FrameTypes")) return;
  std::set<u8> types;
  char* state = nullptr;
  for (char* token = STRTOK_CHAR(setting.text(), " ", &state); token;
       token = STRTOK_CHAR(nullptr, " ", &state))
    types.insert(static_cast<u8>(platform::parseInt32(token)));
  if (!types.empty()) configuration.frameTypes = types;
}

// The place of the next token lives in the thread, not in `state`.
char* FLVAdaptor::STRTOK_CHAR(char* text, const char* delimiters, char**) {
  static thread_local char* next = nullptr;
  return strtok_r(text, delimiters, &next);
}

}  // namespace orv::flv
