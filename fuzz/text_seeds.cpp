// First inputs for text_fuzz.

#include <fstream>
#include <string>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const char* const kTexts[] = {
      "",
      " \t-12.5e3x ",
      "99999999999999999999",
      "a%20b%zz%4%",
      "\xC3\xA9\xE2\x82\xAC\xED\xA0\xBD\xED\xB8\x80",
      "ok\xF0\x9F\x98\x80",
      "[%4s][%-8.3S] %c %C %08lld %hhd %*d %.2e %p 100%%s",
      "C:\\films\\..\\one//two/three.flv",
      "\\\\host\\share\\",
      "Thu, 05 Mar 2015 12:34:56 GMT",
      "2015-03-05T12:34:56Z",
      "1425558896",
      "%Dd:%Hh:%Mm:%Ss",
      "ReadSize=16384\nMaxSegSize=-1\nEnableAggMsgs=FALSE\nFrameTypes=8 9 x\nRetryCorruptedFLVs=99999999999",
  };
  int number = 0;
  for (const char* const text : kTexts) {
    for (const char cut : {'\0', '\x60', '\xFF'}) {
      std::ofstream out(std::string(argv[1]) + "/text" + std::to_string(number++), std::ios::binary);
      out << cut << text;
      if (!out) return 1;
    }
  }
}
