#include "host/text/Console.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host/text/Failure.h"
#include "host/text/Printable.h"

namespace orv::host {

namespace {

constexpr auto kProgressInterval = std::chrono::milliseconds(200);
constexpr char kWipeLine[] = "\r\x1b[K";

std::atomic<bool> progressShown{false};
std::atomic<bool> quiet{false};
std::FILE* dataStream = nullptr;

[[noreturn]] void throwOutputFailure(int error) {
  if (error == EPIPE) throw ReaderGone();
  throw hostFault(std::string("standard output: ") + std::strerror(error));
}

void wipeProgress() {
  if (progressShown.exchange(false)) std::fputs(kWipeLine, stderr);
}

}  // namespace

void report(const std::string& line) {
  wipeProgress();
  // On a terminal, both are seen in the order in which they were written. An error shows at the next print.
  if (dataStream) std::fflush(dataStream);
  std::fprintf(stderr, "flvhost: %s\n", printable(line).c_str());
}

void note(const std::string& line) {
  if (!quiet) report(line);
}

void beQuiet() {
  quiet = true;
}

void claimStandardOutput() {
  // A file that is opened later must not become a standard stream.
  bool missingOutput = false;
  int nothing = ::open("/dev/null", O_RDWR);
  while (nothing >= 0 && nothing <= STDERR_FILENO) {
    if (nothing == STDOUT_FILENO) missingOutput = true;
    nothing = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  }
  if (!missingOutput) {
    const int data = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (data >= 0) dataStream = ::fdopen(data, "w");
    ::dup2(nothing, STDOUT_FILENO);
  }
  ::close(nothing);
}

void showModuleOutput() {
  std::setvbuf(stdout, nullptr, _IONBF, 0);
  ::dup2(STDERR_FILENO, STDOUT_FILENO);
}

int dataDescriptor() {
  return dataStream ? ::fileno(dataStream) : -1;
}

void print(const std::string& text) {
  if (!dataStream) throwOutputFailure(EBADF);
  if (std::fwrite(text.data(), 1, text.size(), dataStream) != text.size()) throwOutputFailure(errno);
}

void flushOutput() {
  if (!dataStream) return;
  if (std::fflush(dataStream) != 0 || std::ferror(dataStream)) throwOutputFailure(errno);
}

bool isColoured() {
  const char* const refusal = std::getenv("NO_COLOR");
  return (!refusal || !*refusal) && dataStream && isatty(dataDescriptor());
}

Progress::Progress()
    : onTerminal_(isatty(STDERR_FILENO) != 0 && !quiet),
      start_(Clock::now()),
      next_(start_ + kProgressInterval) {}

Progress::~Progress() {
  wipeProgress();
}

bool Progress::isDue() {
  return onTerminal_ && Clock::now() >= next_;
}

void Progress::show(const std::string& text) {
  next_ = Clock::now() + kProgressInterval;
  progressShown = true;
  std::fprintf(stderr, "%s%s", kWipeLine, printable(text).c_str());
  std::fflush(stderr);
}

void Progress::showShare(i64 done, i64 total, const std::string& text) {
  const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start_);
  show(shareText(done, total, elapsed) + "  " + text);
}

std::string shareText(i64 done, i64 total, std::chrono::milliseconds elapsed) {
  const double seconds = static_cast<double>(std::max<i64>(elapsed.count(), 1)) / 1000;
  const double rate = static_cast<double>(done) / seconds;
  const std::string rateText = fmt::format("{:.0f} MiB/s", rate / (1 << 20));
  if (total <= 0 || done <= 0) return rateText;
  const auto left = static_cast<i64>(static_cast<double>(std::max<i64>(total - done, 0)) / rate + 0.5);
  const i64 share = static_cast<i64>(100.0 * static_cast<double>(done) / static_cast<double>(total));
  return fmt::format("{}%  {}  {}:{:02} left", share, rateText, left / 60, left % 60);
}

}  // namespace orv::host
