// Keeps what the module prints of failed reads apart, so that it doesn't bury a failure.

#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <string>

namespace orv::test {

// Holds back standard output for as long as it lives. Only after a failure the rest of it appears.
class QuietReads {
 public:
  QuietReads() { testing::internal::CaptureStdout(); }
  QuietReads(const QuietReads&) = delete;
  QuietReads& operator=(const QuietReads&) = delete;
  ~QuietReads() {
    seen_ += testing::internal::GetCapturedStdout();
    static const std::regex kRead("FLV file read .*? error-code [0-9]+");
    if (testing::Test::HasFailure()) std::fputs(std::regex_replace(seen_, kRead, "").c_str(), stdout);
  }

  // What was printed since the last call.
  std::string printed() {
    const std::string text = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    seen_ += text;
    return text;
  }

 private:
  std::string seen_;
};

}  // namespace orv::test
