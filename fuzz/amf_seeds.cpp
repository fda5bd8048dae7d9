// First inputs for amf_fuzz: values of every form, and some that lie.

#include <fstream>
#include <string>

#include "support/AmfText.h"

using namespace orv::test;

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const char* const kPayloads[] = {
      "02 000A'onMetaData' 08 00000002 0008'duration' 00 405ED00000000000 0006'stereo' 01 01 000009",
      "02 0004'play' 00 3FF0000000000000 05 02 0001'x' 0C 00000001'y' 0F 00000001'z' 0B 00(8) 0000",
      "02 0001'a' 03 0001'b' 0A 00000003 05 06 0D 0001'c' 07 0001 0001'd' 07 0000 000009",
      "02 0001'a' 10 0003'cls' 0001'b' 20 00000002 0102 0001'c' 22 0000000000000001 000009",
      "02 0001'a' 11 09 05 03'n' 04 05 01 06 05'ab' 05 3FF8000000000000 11 09 02",
      "02 0001'a' 11 0A 1B 07'cls' 03'a' 01 03'b' 02 01 11 0A 01 03 01",
      "02 0001'a' 11 09 11 01 08 01 00(8) 08 02 0B 03'x' 0B 04 0C 03 07 0C 06 07 03'y' 0A 00",
      "02 0001'a' 11 0D 05 01 00000001 00000002 11 0E 03 00 00000003 11 0F 03 00 00(8)",
      "02 0001'a' 11 10 05 00 07'cls' 01 04 05 11 11 03 01 06 03'k' 09 01 01",
      "02 0001'a' 03 0000 03 0000 03 0000 0A 00000001 0A 00000001 11 09 03 01 0A 0B 01 03'a' 09 03 01 09 00",
  };
  int number = 0;
  for (const char* const payload : kPayloads) {
    for (const char* const head : {"00", "01", "05", "02 00", "03 00"}) {
      const Bytes bytes = bytesOf(std::string(head) + payload);
      std::ofstream out(std::string(argv[1]) + "/amf" + std::to_string(number++), std::ios::binary);
      out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
      if (!out) return 1;
    }
  }
}
