// Many readers or one writer; a waiting writer holds new readers back.

#pragma once

#include <boost/noncopyable.hpp>

#include "util/KTConditionSignal.h"
#include "util/KTThreadOnlyMutex.h"

namespace orv::util {

// Not recursive: a reader that reads again while a writer waits would wait for itself.
class ReadWriteLock : private boost::noncopyable {
 public:
  void lockRead();
  void unlockRead();
  void lockWrite();
  void unlockWrite();

  // Return the number of threads inside lockRead and lockWrite.
  i32 readersWaitingForTest();
  i32 writersWaitingForTest();

 private:
  KTThreadOnlyMutex mutex_{true};  // Guards what follows.
  KTConditionSignal readersMayGo_;
  KTConditionSignal writerMayGo_;
  i32 readers_ = 0;
  i32 writersWaiting_ = 0;
  bool writing_ = false;
  i32 readersWaiting_ = 0;
};

}  // namespace orv::util
