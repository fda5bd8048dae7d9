#include "host/commands/StopSignals.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>

#include "host/text/Failure.h"

namespace orv::host {

namespace {

int openSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set, signal);
  // The kernel drops ignored signals before they get here.
  const int fd = pthread_sigmask(SIG_BLOCK, &set, nullptr) == 0 ? signalfd(-1, &set, SFD_CLOEXEC) : -1;
  if (fd < 0) throw hostFault(std::string("cannot wait for signals: ") + std::strerror(errno));
  return fd;
}

}  // namespace

StopSignals::StopSignals() : signals_(openSignals()) {}

StopSignals::~StopSignals() {
  ::close(signals_);
}

StopSignals::Wake StopSignals::wait(int fd, short events, int timeout) const {
  pollfd watched[] = {{signals_, POLLIN, 0}, {fd, events, 0}};
  if (::poll(watched, std::size(watched), timeout) <= 0) return {};
  return {watched[0].revents != 0, watched[1].revents != 0};
}

StopSignals::Wake StopSignals::waitForInput(int fd, std::optional<Duration> timeout) const {
  const i64 most = timeout ? std::clamp<i64>(timeout->count(), 0, INT_MAX) : -1;
  return wait(fd, POLLIN, static_cast<int>(most));
}

StopSignals::Wake StopSignals::waitForReaderGone(int fd, Duration timeout) const {
  return wait(fd, 0, static_cast<int>(timeout.count()));
}

}  // namespace orv::host
