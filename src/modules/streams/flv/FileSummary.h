// What a file holds, and the scan that finds it out.

#pragma once

#include "modules/streams/flv/FrameFinder.h"

namespace orv::flv {

// Of the file as it was at `scanTime`. Nothing of it comes from the metadata's own claims.
struct FileSummary {
  u8 typeFlags = 0;  // Byte 4 of the file.
  FrameRecord firstFrame;
  FrameRecord lastFrame;  // Behind the last tag: its time is one more than that tag's.
  i64 dataEnd = 0;        // End of the last whole tag. During a scan, the size of the file.
  u32 duration = 0;       // Time of the last tag.
  u32 scanTime = 0;       // The stamp: the modification time that the file had before the scan.

  SegmentRange wholeFile() const { return {firstFrame, lastFrame}; }
};

// Brings a summary up to date with an open file, by a bounded number of small reads whatever the file's size.
// Borrows all that it gets, for one operation of a stream.
class SummaryScan {
 public:
  // `file.maxScan` limits the search back for the last tag of a torn file, which `searchBack` permits.
  SummaryScan(FileSummary& summary, const SearchFile& file, const FrameTypes& types, BadDataReports& reports,
              bool searchBack)
      : summary_(summary), file_(file), types_(types), reports_(reports), searchBack_(searchBack) {}

  // Renews all but the stamp. Throws orv::util::FileReadException if the file can't be read or its first tag
  // is none; what was found until then stays.
  void scan();
  // Renews the end, the duration and `lastFrame`, from the bytes in front of `dataEnd`.
  void locateEnd() { locateEnd(file_.buffer); }
  // Whether a segment that was found before the scan, and ended at `known`, may still end there: the file has
  // at most grown since, and isn't another one by now. Takes one small read.
  bool stillEndsAt(const FrameRecord& known);

 private:
  FrameFinder finder(autofilebuffer& buffer);
  void readFirstFrame();
  void locateEndAside();
  void locateEnd(autofilebuffer& buffer);
  bool findLastFrame(autofilebuffer& buffer, FrameRecord* frame);
  bool isOldEnd(autofilebuffer& buffer, const FrameRecord& mark);

  FileSummary& summary_;
  const SearchFile file_;
  const FrameTypes& types_;
  BadDataReports& reports_;
  const bool searchBack_;
};

}  // namespace orv::flv
