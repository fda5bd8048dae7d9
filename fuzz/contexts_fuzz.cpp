// A serialized store of media contexts. What was read from any bytes goes out in one form, which reads back
// as itself.

#include <cstdio>
#include <cstdlib>

#include "modules/streams/flv/MediaContextStore.h"
#include "support/FileImage.h"
#include "util/KTThrowable.h"

#define HOLDS(condition) \
  if (!(condition)) std::fprintf(stderr, "line %d: %s\n", __LINE__, #condition), std::abort()

using orv::flv::MediaContext;
using orv::flv::MediaContextStore;
using orv::test::Bytes;

namespace {

// Empty for an empty store.
Bytes serialized(const MediaContextStore& store) {
  KTBuffer out;
  return store.serialize(out) ? Bytes(out.data, out.data + out.size) : Bytes();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
  MediaContextStore store;
  try {
    store.deserialize(data, static_cast<u32>(size));
  } catch (const KTBreakConnection&) {  // an AMF0 marker that doesn't exist
  }
  // Names and counts cost a few bytes each, so that hostile input gets no leverage.
  HOLDS(store.byteSize() <= sizeof store + 100 * size);
  for (const auto type : {orv::flv::MediaContext{}.contextType, ContextTypeAfter})
    for (const i64 position : {i64{-1}, i64{0}, INT64_MAX, INT64_MIN})
      store.forEach(type, position, [&](const MediaContext& record) {
        HOLDS(record.buffer.begin <= record.buffer.end && record.buffer.end <= record.buffer.size);
        HOLDS(type == record.contextType);
      });
  const Bytes first = serialized(store);
  MediaContextStore again;
  again.deserialize(first.data(), static_cast<u32>(first.size()));
  HOLDS(serialized(again) == first);
  return 0;
}
