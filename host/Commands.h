// The subcommands: each in its own source file, apart from how the command line is read.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Failure.h"
#include "OutputFile.h"
#include "RecordTarget.h"
#include "Session.h"

namespace orv::host {

struct InfoOptions {
  CommonOptions common;
  std::vector<std::string> files;
  bool json = false;
  bool count = false;
};

struct SegmentsOptions {
  CommonOptions common;
  std::string file;
  bool json = false;
};

struct SeekOptions {
  CommonOptions common;
  std::string file;
  u32 time = 0;
  bool json = false;
};

struct PlayOptions {
  CommonOptions common;
  std::string file;
  std::optional<u32> from;
  std::optional<u32> to;
  std::string output;  // Empty: tell what was delivered.
  Existing existing = Existing::refuse;
  bool aggregates = false;
  bool verify = false;
};

struct RecordOptions {
  CommonOptions common;
  std::string file;
  std::string backup;  // Empty: none.
  Onto onto = Onto::newFile;
  u32 flushEvery = 1000;
  bool reserveMetadata = false;
};

struct FollowOptions {
  CommonOptions common;
  std::string file;
  std::string output;  // Empty: tell what was delivered.
  Existing existing = Existing::refuse;
  std::optional<u32> untilIdle;
};

struct MetaOptions {
  CommonOptions common;
  std::string file;
  bool raw = false;
};

struct ContextsOptions {
  CommonOptions common;
  std::string file;
};

struct DemoOptions {
  CommonOptions common;
  std::string file;
};

// Each throws Failure, or ReaderGone, for what isn't the command's regular answer.
ExitCode runInfo(const InfoOptions& options);
ExitCode runSegments(const SegmentsOptions& options);
ExitCode runSeek(const SeekOptions& options);
ExitCode runPlay(const PlayOptions& options);
ExitCode runRecord(const RecordOptions& options);
ExitCode runFollow(const FollowOptions& options);
ExitCode runMeta(const MetaOptions& options);
ExitCode runContexts(const ContextsOptions& options);
ExitCode runDemo(const DemoOptions& options);

}  // namespace orv::host
