// First inputs for amf_fuzz: every form, and every cut one, that the tests know, as a message of each type.

#include <fstream>
#include <string>

#include "support/AmfText.h"

using namespace orv::test;

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  int number = 0;
  for (const AmfCase& form : amfCases()) {
    for (const char* const head : {"00", "01", "05", "02 00", "03 00"}) {
      const Bytes bytes = bytesOf(std::string(head) + " 02 0001'a' " + form.bytes);
      std::ofstream out(std::string(argv[1]) + "/amf" + std::to_string(number++), std::ios::binary);
      out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
      if (!out) return 1;
    }
  }
  return number > 0 ? 0 : 1;
}
