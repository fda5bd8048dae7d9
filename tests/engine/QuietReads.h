// Keeps what the module prints of failed reads apart, so that it doesn't bury a failure.

#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <string_view>

namespace orv::test {

// Holds back standard output for as long as it lives. Only after a failure the rest of it appears.
class QuietReads {
 public:
  QuietReads() { testing::internal::CaptureStdout(); }
  QuietReads(const QuietReads&) = delete;
  QuietReads& operator=(const QuietReads&) = delete;
  ~QuietReads() {
    seen_ += testing::internal::GetCapturedStdout();
    if (testing::Test::HasFailure()) std::fputs(withoutReads().c_str(), stdout);
  }

  // What was printed since the last call.
  std::string printed() {
    const std::string text = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    seen_ += text;
    return text;
  }

 private:
  std::string withoutReads() const {
    static constexpr std::string_view kBegin = "FLV file read ", kEnd = " error-code ";
    std::string text = seen_;
    for (std::size_t from = text.find(kBegin); from != text.npos; from = text.find(kBegin, from)) {
      const std::size_t code = text.find(kEnd, from);
      if (code == text.npos) break;
      text.erase(from, text.find_first_not_of("0123456789", code + kEnd.size()) - from);
    }
    return text;
  }

  std::string seen_;
};

}  // namespace orv::test
