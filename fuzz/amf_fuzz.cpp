// AMF values from foreign bytes: read, read strictly, written, read again.
//
// Input: one byte, then the payload.
//   bits 0-1  the message type: 20, 18, 17 or 15     bit 2  throw on error

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

#include "server/KTCommand.h"
#include "support/AmfText.h"
#include "support/HeapWatch.h"
#include "util/KTThrowable.h"

namespace orv::test {
namespace {

#define HOLDS(condition) \
  if (!(condition)) std::fprintf(stderr, "line %d: %s\n", __LINE__, #condition), std::abort()

constexpr u8 kTypes[] = {20, 18, 17, 15};
constexpr std::size_t kWritten = 4096;  // Longer output is read again, but not compared as text.

// What a value holds, if writing it and reading it again must give the same: no array is met twice, since
// references change types by the rules of the wire; and no key ends an AMF3 array early.
class Walk {
 public:
  bool isPlain(const KTData& value) {
    const KTDataArray* const array = value.asArray();
    if (!array) return true;
    if (!seen_.insert(array).second) return false;
    IndexText indexText;
    for (u32 i = 0; i < array->size(); ++i) {
      if (array->keyText(i, indexText).empty() || !isPlain(array->valueAt(i))) return false;
    }
    return true;
  }

 private:
  std::set<const KTDataArray*> seen_;
};

std::string everything(const KTCommand& command) {
  std::string text = describe(command.name()) + describe(command.transactionId());
  for (u32 i = 0; i < command.argCount(); ++i) text += ", " + describe(command.arg(i));
  return text;
}

Bytes bytesOf(KTCommand command, i32 encoding) {
  command.setEncoding(encoding);
  command.serialize();
  return {command.bytes(), command.bytes() + command.length()};
}

bool isPlain(const KTCommand& command) {
  Walk walk;
  for (u32 i = 0; i < command.argCount(); ++i) {
    if (!walk.isPlain(command.arg(i))) return false;
  }
  return walk.isPlain(command.name()) && walk.isPlain(command.transactionId()) &&
         walk.isPlain(command.commandObject());
}

// Once written, values are in the form that this system gives them: from then on nothing changes any more.
void checkWriting(const KTCommand& command, i32 encoding) {
  const Bytes first = bytesOf(command, encoding);
  const KTCommand again(20, first.data(), static_cast<u32>(first.size()), false);
  if (!isPlain(command) || first.size() > kWritten) return;
  HOLDS(!again.failed() && again.argCount() == command.argCount());
  const Bytes second = bytesOf(again, encoding);
  const KTCommand third(20, second.data(), static_cast<u32>(second.size()), true);
  HOLDS(second == bytesOf(third, encoding));
  HOLDS(everything(third) == everything(again));
}

void check(u8 type, bool strict, const u8* data, u32 size) {
  const HeapWatch heap;
  try {
    const KTCommand command(type, data, size, strict);
    HOLDS(heap->peak <= amf::grantFor(size) + u64{size} * 8);
    HOLDS(!strict || !command.failed());
    for (const i32 encoding : {0, 3}) checkWriting(command, encoding);
  } catch (const KTBreakConnection& broken) {
    HOLDS(broken.code == KTBreakConnection::kMalformedData);
  }
  HOLDS(heap->live == 0);
}

}  // namespace
}  // namespace orv::test

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
  using namespace orv::test;
  if (size < 1) return 0;
  check(kTypes[data[0] & 3], (data[0] & 4) != 0, data + 1, static_cast<u32>(size - 1));
  return 0;
}
