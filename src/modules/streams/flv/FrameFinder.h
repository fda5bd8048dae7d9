// The search for the frame that holds a position: back from it, byte by byte.

#pragma once

#include "modules/streams/flv/BadDataReports.h"
#include "modules/streams/flv/FrameChecks.h"
#include "modules/streams/flv/SearchWindow.h"

namespace orv::flv {

// Where a search reads, and how far it goes.
struct SearchFile {
  autofilebuffer& buffer;
  IFileService* service;
  int fd;        // Open for reading.
  u32 readSize;  // Of one read of a search.
  u32 maxScan;   // Bytes that a search walks back at most.
};

// Knows no stream: borrows all of it for one operation.
class FrameFinder {
 public:
  FrameFinder(const SearchFile& file, const FrameLimits& limits, BadDataReports& reports)
      : file_(file), checks_(limits), reports_(reports) {}

  const FrameLimits& limits() const { return checks_.limits(); }
  BadDataReports& reports() { return reports_; }

  // Until the scope ends the block of the read cache stays in place.
  PassThroughScope keepBlock() { return PassThroughScope(file_.buffer); }

  // The frame that holds `position`, or the last one in front of it, in `range`. False if none passes the
  // checks, the file can't be read or the allowance of bad data is used up; a frame that doesn't end in the
  // range is reported, and false too.
  bool findFrameAtOrBefore(i64 position, FrameRecord* frame, const SegmentRange& range);
  // The last good frame in front of the data's end: the one to which the last size field leads, or, if
  // `searchBack`, the first that a search back finds. `first` is the file's first frame.
  bool findLastFrame(FrameRecord* frame, const FrameRecord& first, bool searchBack);
  // The frame that stands exactly at `position`, by its header alone.
  bool readFrameHeader(i64 position, FrameRecord* frame);

 private:
  bool searchDown(SearchWindow& window, i64 highest, i64 lowest, const SegmentRange& range,
                  FrameRecord* frame);
  bool findInView(SearchWindow& window, const SearchWindow::View& view, i64 highest, i64 lowest,
                  FrameRecord* frame) const;
  i64 likelyCandidate(const SearchWindow::View& view, i64 highest, i64 lowest) const;

  SearchFile file_;
  FrameChecks checks_;
  BadDataReports& reports_;
};

}  // namespace orv::flv
