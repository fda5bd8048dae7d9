// Holds threads until a test lets them go, and waits for what they have counted.

#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

class Gate {
 public:
  void open() {
    const std::lock_guard guard(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  void pass() {
    std::unique_lock guard(mutex_);
    changed_.wait(guard, [this] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

// Until `condition` holds. Only for what a hook reports and a gate can't: a thread asleep inside the lock.
template <class Condition>
void await(Condition condition) {
  while (!condition()) std::this_thread::yield();
}
