// Reports of bad data in one file.

#pragma once

#include "modules/streams/contract/IQVStreamContext.h"
#include "util/KTWideString.h"

namespace orv::flv {

// A stream may make so many of them; once they are used up, its searches refuse. Only ever counts up.
class BadDataReports {
 public:
  // `allowance` is the number of reports less one; negative: no limit. Borrows the context.
  BadDataReports(IQVStreamContext* context, const KTWideString& path, i32 allowance)
      : context_(context), path_(path), allowance_(allowance) {}

  bool usedUp() const { return allowance_ >= 0 && badDataCount_ > static_cast<u32>(allowance_); }
  // Logs one, with the calling place.
  void reportBadData(const char* file = __builtin_FILE(), int line = __builtin_LINE());

 private:
  IQVStreamContext* context_;
  KTWideString path_;
  i32 allowance_;
  u32 badDataCount_ = 0;
};

}  // namespace orv::flv
