// The subcommands: each in its own source file, apart from how the command line is read.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/files/OutputFile.h"
#include "host/module/RecordTarget.h"
#include "host/module/Session.h"
#include "host/text/Failure.h"

namespace orv::host {

struct ServerOptions;

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
  std::string output;  // Empty: report what was delivered.
  Existing existing = Existing::refuse;
  bool aggregates = false;
  bool verify = false;
};

// What becomes of the times of a stream that is appended.
enum class AppendedTimes { goOn, asIs };

struct RecordOptions {
  CommonOptions common;
  std::string file;
  std::string backup;  // Empty: none.
  Onto onto = Onto::newFile;
  u32 flushEvery = 1000;
  bool reserveMetadata = true;
  AppendedTimes times = AppendedTimes::goOn;
  bool force = false;  // Append behind a torn end.
  Sync sync = Sync::none;
  std::string codecs;  // "all" or "classic"; empty: as the settings say.
};

struct FollowOptions {
  CommonOptions common;
  std::string file;
  std::string output;  // Empty: report what was delivered.
  Existing existing = Existing::refuse;
  std::optional<u32> untilIdle;
  // Where to start; with `fromEnd`, so much before the end that the file has then.
  std::optional<u32> from;
  bool fromEnd = false;
  bool wait = false;  // For the file to be there.
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

struct CheckOptions {
  std::vector<std::string> files;
  bool json = false;
};

struct TagsOptions {
  std::string file;
  std::optional<u32> from;
  std::optional<u32> to;
  bool json = false;
};

struct RepairOptions {
  std::string input;
  std::string output;
  Existing existing = Existing::refuse;
  bool fixTimes = false;
  bool dropUnknown = false;
  bool keyFrames = false;
};

struct IndexOptions {
  std::string file;
  std::string output;  // Empty: show the index.
  Existing existing = Existing::refuse;
  bool json = false;
};

struct ReportOptions {
  CommonOptions common;
  std::string file;
  std::string output;
  Existing existing = Existing::refuse;
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
ExitCode runCheck(const CheckOptions& options);
ExitCode runTags(const TagsOptions& options);
ExitCode runRepair(const RepairOptions& options);
ExitCode runIndex(const IndexOptions& options);
ExitCode runReport(const ReportOptions& options);
ExitCode runDemo(const DemoOptions& options);
ExitCode runServe(const ServerOptions& options);

}  // namespace orv::host
