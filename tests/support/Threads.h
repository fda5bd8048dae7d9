// Several threads at once, and waiting for what they report.

#pragma once

#include <thread>
#include <vector>

namespace orv::test {

// Runs `body(i)` on `count` threads, up to the end of them all.
template <class Body>
void onThreads(int count, Body body) {
  std::vector<std::jthread> threads;
  threads.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) threads.emplace_back(body, i);
}

// Until `condition` holds. Only for what nothing signals: a thread asleep inside the lock.
template <class Condition>
void await(Condition condition) {
  while (!condition()) std::this_thread::yield();
}

}  // namespace orv::test
