#include "util/ReadWriteLock.h"

namespace orv::util {

// One signal wakes one reader, so each reader that comes through wakes the next one: after a writer all that
// wait come in, one behind the other. A reader that finds another writer in its way lets the signal lapse;
// that writer will signal again when it leaves.
void ReadWriteLock::lockRead() {
  const KTMutexGuard guard(mutex_);
  ++readersWaiting_;
  while (writing_ || writersWaiting_ > 0) readersMayGo_.wait(mutex_);
  --readersWaiting_;
  ++readers_;
  if (readersWaiting_ > 0) readersMayGo_.signal();
}

void ReadWriteLock::unlockRead() {
  const KTMutexGuard guard(mutex_);
  if (--readers_ == 0) writerMayGo_.signal();
}

void ReadWriteLock::lockWrite() {
  const KTMutexGuard guard(mutex_);
  ++writersWaiting_;
  while (readers_ > 0 || writing_) writerMayGo_.wait(mutex_);
  --writersWaiting_;
  writing_ = true;
}

void ReadWriteLock::unlockWrite() {
  const KTMutexGuard guard(mutex_);
  writing_ = false;
  (writersWaiting_ != 0 ? writerMayGo_ : readersMayGo_).signal();
}

i32 ReadWriteLock::readersWaitingForTest() {
  const KTMutexGuard guard(mutex_);
  return readersWaiting_;
}

i32 ReadWriteLock::writersWaitingForTest() {
  const KTMutexGuard guard(mutex_);
  return writersWaiting_;
}

}  // namespace orv::util
