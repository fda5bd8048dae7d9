// What clients of the server send: the target of a request, whose name must stay in the folder, and a
// publisher's stream in pieces.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "host/flv/FlvReader.h"
#include "host/flv/MetadataReserve.h"
#include "host/server/Request.h"
#include "util/KTThrowable.h"

#define HOLDS(condition) \
  if (!(condition)) std::fprintf(stderr, "line %d: %s\n", __LINE__, #condition), std::abort()

using namespace orv::host;

namespace {

void readTarget(std::string_view target) {
  const ServerRequest request = readRequest(target);
  if (request.name.empty()) return;
  HOLDS(isServedName(request.name));
  HOLDS(request.name.front() != '/' && request.name.find('\\') == std::string::npos);
  HOLDS(("/" + request.name + "/").find("/../") == std::string::npos);
  HOLDS(
      std::none_of(request.name.begin(), request.name.end(), [](char c) { return c == '\0' || c == '\n'; }));
}

// In two pieces as in one.
void readStream(const u8* data, std::size_t size, std::size_t cut) {
  std::size_t counts[2] = {0, 0};
  for (std::size_t& count : counts) {
    MetadataReserve reserve([&](const Tag& tag) { count += tag.size + 1; });
    FlvReader reader([&](const Tag& tag) { reserve.take(tag); });
    const std::size_t first = &count == counts ? size : cut;
    try {
      if (reader.feed(data, first)) reader.feed(data + first, size - first);
      reserve.finish();
    } catch (const KTBreakConnection&) {  // metadata that make no sense
    }
  }
  HOLDS(counts[0] == counts[1]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
  readTarget({reinterpret_cast<const char*>(data), size});
  if (size > 0) readStream(data + 1, size - 1, data[0] % size);
  return 0;
}
