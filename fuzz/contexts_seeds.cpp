// First inputs for contexts_fuzz: stores of none to five records, whole and cut.

#include <fstream>
#include <string>

#include "modules/streams/flv/MediaContextStore.h"
#include "support/FlvBuilder.h"

using namespace orv::flv;

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  MediaContextStore store;
  for (u32 records = 0; records <= 5; ++records) {
    KTBuffer blob;
    if (!store.serialize(blob)) blob = KTBuffer(8, nullptr);
    for (const u32 cut : {0u, 5u}) {
      const std::string name =
          std::string(argv[1]) + "/store" + std::to_string(records) + "-" + std::to_string(cut);
      std::ofstream out(name, std::ios::binary);
      out.write(reinterpret_cast<const char*>(blob.data), blob.size - cut);
      if (!out) return 1;
    }
    const orv::test::Bytes data = orv::test::payload(kTypeVideo, 10 * records, records);
    MediaContext record;
    record.messageType = kTypeDataAmf0;
    record.time = records;
    record.trackID = orv::kTrackMetaData + records % 3;
    record.buffer = KTBuffer(10 * records, nullptr);
    record.buffer.append(data.data(), 10 * records);
    store.add(record);
  }
}
