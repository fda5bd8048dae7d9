// The everyday lock: recursive, and waiting blocks the thread.

#pragma once

#include <boost/noncopyable.hpp>

#include "util/IMutex.h"

// A fiber must not give up its thread while it holds a tracked mutex. While tracking is on, each thread
// counts the tracked mutexes that it holds; it is off unless somebody turns it on before the first lock is
// taken.
class KTThreadOnlyMutex : public IMutex, private boost::noncopyable {
 public:
  using Handling = orv::platform::CriticalSection::Handling;

  explicit KTThreadOnlyMutex(bool tracked, Handling handling = Handling::kStaysWithThread)
      : section_(handling), tracked_(tracked) {}

  bool lock() override;
  bool unlock() override;
  orv::platform::CriticalSection* nativeHandle() override { return &section_; }
  u32 setSpinCount(u32 count) override { return section_.setSpinCount(count); }
  virtual ~KTThreadOnlyMutex() = default;
  virtual void onLocked();     // Called with the lock held.
  virtual void onUnlocking();  // The same.

  static void setTracking(bool on);
  // Tracked mutexes that the calling thread holds; 0 while tracking is off.
  static u32 trackedDepth();

 private:
  orv::platform::CriticalSection section_;
  const bool tracked_;
};
