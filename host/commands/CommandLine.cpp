#include "host/commands/CommandLine.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <functional>
#include <nlohmann/json.hpp>

#include "host/check/Findings.h"
#include "host/commands/Commands.h"
#include "host/commands/Manual.h"
#include "host/server/HttpServer.h"
#include "host/text/Console.h"
#include "host/text/TimeText.h"
#include "util/KTThrowable.h"

namespace orv::host {

namespace {

constexpr char kExitCodes[] =
    "Exit codes: 0 good; 1 the file's fault; 2 wrong usage, or the system's fault (a missing file, a full "
    "disk).";

constexpr char kFileHelp[] = "An FLV file, or the http address of one";

// The time that `text` names from its byte `at` on. Throws Failure.
u32 timeOf(const std::string& text, std::size_t at = 0) {
  const std::optional<u32> time = parseTime(std::string_view(text).substr(at));
  if (!time) throw hostFault(text + ": is not a time; give [HH:]MM:SS[.mmm] or S[.mmm][s|ms]");
  return *time;
}

std::string versionText() {
  return fmt::format("flvhost {} ({}, {} {}, CLI11 {}, fmt {}.{}.{})\n", FLV_VERSION, FLV_BUILD_TYPE,
                     FLV_COMPILER, __VERSION__, CLI11_VERSION, FMT_VERSION / 10000, FMT_VERSION / 100 % 100,
                     FMT_VERSION % 100);
}

// The subcommands with their options.
class CommandLine {
 public:
  CommandLine() {
    app_.require_subcommand(0, 1);
    app_.set_version_flag("--version", std::string(FLV_VERSION));
    app_.footer(std::string("flvhost COMMAND --help shows a command's options, with an example.\n\n") +
                kExitCodes);
    addInfo();
    addSegments();
    addSeek();
    addPlay();
    addRecord();
    addFollow();
    addMeta();
    addContexts();
    addCheck();
    addTags();
    addRepair();
    addIndex();
    addReport();
    addDemo();
    addServe();
    addManual();
  }

  int run(int argc, const char* const* argv) {
    try {
      return parseAndRun(argc, argv);
    } catch (const Failure& failure) {
      printJsonError(failure.what(), failure.code());
      throw;
    }
  }

 private:
  int parseAndRun(int argc, const char* const* argv);
  // For programs that asked for JSON.
  void printJsonError(const std::string& message, ExitCode code) const;
  const CLI::App* parsedCommand() const;

  void addInfo();
  void addSegments();
  void addSeek();
  void addPlay();
  void addRecord();
  void addFollow();
  void addMeta();
  void addContexts();
  void addCheck();
  void addTags();
  void addRepair();
  void addIndex();
  void addReport();
  void addDemo();
  void addServe();
  void addManual();
  void setFollowStart(const std::string& text);

  // A command that plays no part in the module's world.
  CLI::App* addPlainCommand(const char* name, const char* description, const char* example);
  // One that uses the module.
  CLI::App* addCommand(const char* name, const char* description, const char* example, CommonOptions& common);
  // An option whose value is a time.
  CLI::Option* addTime(CLI::App* command, const char* name, const char* description,
                       std::function<void(u32)> take);

  CLI::App app_{"Plays and records FLV files through the storage module, as a streaming server does.",
                "flvhost"};
  std::function<ExitCode()> chosen_;
  InfoOptions info_;
  SegmentsOptions segments_;
  SeekOptions seek_;
  PlayOptions play_;
  RecordOptions record_;
  std::string appendedTimes_;
  FollowOptions follow_;
  MetaOptions meta_;
  ContextsOptions contexts_;
  CheckOptions check_;
  TagsOptions tags_;
  RepairOptions repair_;
  IndexOptions index_;
  ReportOptions report_;
  DemoOptions demo_;
  ServerOptions serve_;
  std::string manualFolder_;
};

int CommandLine::parseAndRun(int argc, const char* const* argv) {
  try {
    app_.parse(argc, argv);
    if (!chosen_) throw hostFault("no command given; see flvhost --help");
    return static_cast<int>(chosen_());
  } catch (const CLI::CallForVersion&) {
    print(versionText());
    flushOutput();
    return static_cast<int>(ExitCode::good);
  } catch (const CLI::CallForHelp&) {
    print(app_.help());
    flushOutput();
    return static_cast<int>(ExitCode::good);
  } catch (const CLI::ParseError& error) {
    const CLI::App* const command = parsedCommand();
    throw hostFault(
        fmt::format("{}; see flvhost {}--help", error.what(), command ? command->get_name() + " " : ""));
  }
}

const CLI::App* CommandLine::parsedCommand() const {
  const auto parsed = app_.get_subcommands([](const CLI::App* command) { return command->parsed(); });
  return parsed.empty() ? nullptr : parsed.front();
}

void CommandLine::printJsonError(const std::string& message, ExitCode code) const {
  const CLI::App* const command = parsedCommand();
  const CLI::Option* const json = command ? command->get_option_no_throw("--json") : nullptr;
  if (!json || json->count() == 0) return;
  const nlohmann::ordered_json error = {
      {"error", {{"message", message}, {"exitCode", static_cast<int>(code)}}}};
  print(error.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace) + "\n");
  flushOutput();
}

CLI::App* CommandLine::addPlainCommand(const char* name, const char* description, const char* example) {
  CLI::App* const command = app_.add_subcommand(name, description);
  command->footer(std::string("Example:\n  ") + example + "\n\n" + kExitCodes);
  command->add_flag_callback("--quiet", beQuiet, "Print errors only: no progress and no closing line");
  return command;
}

CLI::App* CommandLine::addCommand(const char* name, const char* description, const char* example,
                                  CommonOptions& common) {
  CLI::App* const command = addPlainCommand(name, description, example);
  command
      ->add_option("--module", common.module,
                   "Load this storage module (default $FLVADAPTOR_MODULE, or the one near flvhost)")
      ->type_name("PATH");
  command
      ->add_option_function<std::string>(
          "--set", [&common](const std::string& assignment) { common.settings.assign(assignment); },
          "Set a module setting, such as EnableAggMsgs=false; repeatable")
      ->type_name("Key=Value")
      ->trigger_on_parse()
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->allow_extra_args(false);
  command->add_flag("--stats", common.stats, "Report host calls and bytes read on standard error");
  command->add_flag_callback("--verbose", showModuleOutput,
                             "Show the module's own output (failed reads) on standard error");
  return command;
}

CLI::Option* CommandLine::addTime(CLI::App* command, const char* name, const char* description,
                                  std::function<void(u32)> take) {
  return command
      ->add_option_function<std::string>(
          name, [take = std::move(take)](const std::string& text) { take(timeOf(text)); }, description)
      ->type_name("TIME");
}

void CommandLine::addInfo() {
  CLI::App* const command =
      addCommand("info", "Shows what files hold: size, playable end, duration, codecs, rates.",
                 "flvhost info clip.flv other.flv --json", info_.common);
  command->add_option("FILE", info_.files, "FLV files or http addresses")->required();
  command->add_flag("--json", info_.json, "Print one JSON document");
  command->add_flag("--count", info_.count, "Walk through each file and count its tags");
  command->callback([this] { chosen_ = [this] { return runInfo(info_); }; });
}

void CommandLine::addSegments() {
  CLI::App* const command = addCommand("segments", "Lists the segments in which a file is played.",
                                       "flvhost segments clip.flv", segments_.common);
  command->add_option("FILE", segments_.file, kFileHelp)->required();
  command->add_flag("--json", segments_.json, "Print one JSON document");
  command->callback([this] { chosen_ = [this] { return runSegments(segments_); }; });
}

void CommandLine::addSeek() {
  CLI::App* const command = addCommand("seek", "Finds the segment that holds a time.",
                                       "flvhost seek clip.flv 1:02:03.250", seek_.common);
  command->add_option("FILE", seek_.file, kFileHelp)->required();
  addTime(command, "TIME", "[HH:]MM:SS[.mmm] or S[.mmm][s|ms]", [this](u32 time) {
    seek_.time = time;
  })->required();
  command->add_flag("--json", seek_.json, "Print one JSON document");
  command->callback([this] { chosen_ = [this] { return runSeek(seek_); }; });
}

void CommandLine::addPlay() {
  CLI::App* const command =
      addCommand("play", "Plays a file to a new file or a pipe; without -o, reports what was delivered.",
                 "flvhost play clip.flv --from 1:30 --to 2:00 -o - | ffplay -", play_.common);
  command->add_option("FILE", play_.file, kFileHelp)->required();
  addTime(command, "--from", "Start at the last key frame at or before this time",
          [this](u32 time) { play_.from = time; });
  addTime(command, "--to", "Stop before this time", [this](u32 time) { play_.to = time; });
  command->add_option("-o,--output", play_.output, "Write a new FLV file; - for standard output")
      ->type_name("OUT");
  command->add_flag_callback(
      "--force", [this] { play_.existing = Existing::replace; }, "Replace OUT if it exists");
  command->add_flag(
      "--aggregates", play_.aggregates,
      "Write aggregates as tags of type 22, for readers that know them, instead of unpacking them");
  command->add_flag("--verify", play_.verify, "Compare each delivered tag with the file, byte by byte");
  command->callback([this] {
    if (play_.from && play_.to && *play_.from >= *play_.to) throw hostFault("--from must lie before --to");
    chosen_ = [this] { return runPlay(play_); };
  });
}

void CommandLine::addRecord() {
  CLI::App* const command = addCommand(
      "record",
      "Records a live FLV stream from standard input into a file that can be played meanwhile. Damage in the "
      "stream is reported and left out.",
      "ffmpeg -re -i in.mp4 -c copy -f flv - | flvhost record live.flv", record_.common);
  command->add_option("FILE", record_.file, "The FLV file to record into")->required();
  addTime(command, "--flush-every", "Write to FILE this often (default 1s)",
          [this](u32 time) { record_.flushEvery = time; });
  command->add_option("--backup", record_.backup, "Mirror FILE to COPY at each flush")->type_name("COPY");
  CLI::Option* const append =
      command
          ->add_flag(
              "--append{continue}", appendedTimes_,
              "Append to FILE; times continue from its last tag, or stay as they come with --append=as-is")
          ->check(CLI::IsMember({"continue", "as-is"}));
  command
      ->add_flag_callback(
          "--overwrite", [this] { record_.onto = Onto::overwrite; },
          "Replace FILE, once the first frame has come")
      ->excludes(append);
  command
      ->add_option("--sync", record_.sync,
                   "Sync FILE, but not its copy: none (default), when the system does; interval, about every "
                   "5s; flush, with each flush, so that a power cut loses nothing that was flushed")
      ->transform(CLI::Transformer(std::map<std::string, Sync>{
          {"none", Sync::none}, {"flush", Sync::flush}, {"interval", Sync::interval}}))
      ->option_text("none|flush|interval");
  command
      ->add_option("--codecs", record_.codecs,
                   "Record all codecs (default), or classic: leave out H.264 and AAC")
      ->check(CLI::IsMember({"all", Settings::kClassic}))
      ->option_text("all|classic");
  command->add_flag("--force", record_.force, "With --append, append even behind a torn end");
  command->add_flag_callback(
      "--keep-metadata", [this] { record_.reserveMetadata = false; },
      "Record the stream's onMetaData as it comes. Without this, the keys that each flush brings up to date "
      "are added (duration, codecs, canSeekToEnd) and those that become false are dropped (filesize, "
      "keyframes)");
  command
      ->add_flag_callback(
          "--reserve-metadata", [] {}, "The default; kept for scripts")
      ->group("");
  command->callback([this] {
    if (record_.file == "-") throw hostFault("record needs a file, not a pipe; to pass a stream on, use cat");
    if (!appendedTimes_.empty()) record_.onto = Onto::append;
    if (appendedTimes_ == "as-is") record_.times = AppendedTimes::asIs;
    chosen_ = [this] { return runRecord(record_); };
  });
}

void CommandLine::addFollow() {
  CLI::App* const command =
      addCommand("follow", "Plays a file that is being recorded and follows it as it grows, until Ctrl-C.",
                 "flvhost follow live.flv -o - | ffplay -", follow_.common);
  command->add_option("FILE", follow_.file, kFileHelp)->required();
  command
      ->add_option("-o,--output", follow_.output,
                   "Write a new FLV file in place, as it grows; - for standard output")
      ->type_name("OUT");
  command->add_flag_callback(
      "--force", [this] { follow_.existing = Existing::replace; }, "Replace OUT if it exists");
  addTime(command, "--until-idle", "Stop once the file has not grown for this long; 0 plays what is there",
          [this](u32 time) { follow_.untilIdle = time; });
  command
      ->add_option_function<std::string>(
          "--from", [this](const std::string& text) { setFollowStart(text); },
          "Start at the last key frame at or before this time or, with -TIME, that long before the end")
      ->type_name("[-]TIME");
  command->add_flag("--wait", follow_.wait, "Wait for FILE to appear");
  command->callback([this] { chosen_ = [this] { return runFollow(follow_); }; });
}

void CommandLine::setFollowStart(const std::string& text) {
  follow_.fromEnd = text.starts_with('-');
  follow_.from = timeOf(text, follow_.fromEnd ? 1 : 0);
}

void CommandLine::addMeta() {
  CLI::App* const command = addCommand("meta", "Shows the metadata at a file's head as JSON.",
                                       "flvhost meta clip.flv", meta_.common);
  command->add_option("FILE", meta_.file, kFileHelp)->required();
  command->add_flag("--raw", meta_.raw, "Dump the bytes instead");
  command->callback([this] { chosen_ = [this] { return runMeta(meta_); }; });
}

void CommandLine::addContexts() {
  CLI::App* const command =
      addCommand("contexts", "Shows as JSON what a server gets as a file's media contexts.",
                 "flvhost contexts clip.flv", contexts_.common);
  command->add_option("FILE", contexts_.file, kFileHelp)->required();
  command->callback([this] { chosen_ = [this] { return runContexts(contexts_); }; });
}

void CommandLine::addCheck() {
  CLI::App* const command = addPlainCommand(
      "check", "Checks every byte of the files: damage, times, codecs, metadata.", "flvhost check *.flv");
  command->add_option("FILE", check_.files, "FLV files or http addresses; - for standard input")->required();
  command->add_flag("--json", check_.json, "Print one JSON document");
  command->footer(command->get_footer() + "\n\nErrors alone make the exit code 1. Findings:\n" + codesText());
  command->callback([this] { chosen_ = [this] { return runCheck(check_); }; });
}

void CommandLine::addTags() {
  CLI::App* const command =
      addPlainCommand("tags", "Lists the tags of a file, one a line; works on damaged files.",
                      "flvhost tags clip.flv --from 1:30 --to 1:31");
  command->add_option("FILE", tags_.file, "An FLV file, or the http address of one; - for standard input")
      ->required();
  addTime(command, "--from", "Leave out tags before this time", [this](u32 time) { tags_.from = time; });
  addTime(command, "--to", "Leave out tags of this time and later", [this](u32 time) { tags_.to = time; });
  command->add_flag("--json", tags_.json, "Print JSON Lines: one object a tag");
  command->callback([this] { chosen_ = [this] { return runTags(tags_); }; });
}

void CommandLine::addRepair() {
  CLI::App* const command = addPlainCommand(
      "repair", "Writes every whole tag of a damaged file into a sound one with true metadata.",
      "flvhost repair torn.flv sound.flv --keyframes");
  command->add_option("IN", repair_.input, "Any file, or an http address; - for standard input")->required();
  command->add_option("OUT", repair_.output, "A new FLV file; - for standard output")->required();
  command->add_flag_callback(
      "--force", [this] { repair_.existing = Existing::replace; }, "Replace OUT if it exists");
  command->add_flag("--keyframes", repair_.keyFrames,
                    "Add the index of key frames that many players seek by");
  command->add_flag("--fix-times", repair_.fixTimes,
                    "Mend times that jump, run back or do not start at 0, as where two files were joined");
  command->add_flag("--drop-unknown", repair_.dropUnknown, "Leave out tags of no known type");
  command->callback([this] { chosen_ = [this] { return runRepair(repair_); }; });
}

void CommandLine::addIndex() {
  CLI::App* const command = addPlainCommand(
      "index", "Shows the key frames of a file, or adds an index of them, which many players seek by.",
      "flvhost index clip.flv -o indexed.flv");
  command->add_option("FILE", index_.file, kFileHelp)->required();
  CLI::Option* const output = command
                                  ->add_option("-o,--output", index_.output,
                                               "Write a new FLV file with the index; - for standard output")
                                  ->type_name("OUT");
  command->add_flag_callback(
      "--force", [this] { index_.existing = Existing::replace; }, "Replace OUT if it exists");
  command->add_flag("--json", index_.json, "Print one JSON document")->excludes(output);
  command->callback([this] { chosen_ = [this] { return runIndex(index_); }; });
}

void CommandLine::addReport() {
  CLI::App* const command =
      addCommand("report", "Draws a file as one web page: bit rates over time, key frames, segments, damage.",
                 "flvhost report clip.flv -o clip.html", report_.common);
  command->add_option("FILE", report_.file, "An FLV file, damaged or not, or the http address of one")
      ->required();
  command->add_option("-o,--output", report_.output, "Write a new HTML file; - for standard output")
      ->type_name("OUT")
      ->required();
  command->add_flag_callback(
      "--force", [this] { report_.existing = Existing::replace; }, "Replace OUT if it exists");
  command->callback([this] { chosen_ = [this] { return runReport(report_); }; });
}

void CommandLine::addDemo() {
  CLI::App* const command = addCommand(
      "demo", "Shows a file's summary, its segments, a seek, a checked play-out, and a live recording of it.",
      "flvhost demo clip.flv", demo_.common);
  command->add_option("FILE", demo_.file, kFileHelp)->required();
  command->callback([this] { chosen_ = [this] { return runDemo(demo_); }; });
}

void CommandLine::addServe() {
  CLI::App* const command =
      addCommand("serve", "Serves a folder over HTTP: files, live streams, a page that plays them.",
                 "flvhost serve films --listen 127.0.0.1:8080 --allow-publish\n"
                 "  ffmpeg -re -i x.mp4 -c copy -f flv http://127.0.0.1:8080/live.flv",
                 serve_.library.common);
  serve_.library.folder = ".";
  command->add_option("DIR", serve_.library.folder, "The folder to serve (default: the working directory)");
  command
      ->add_option_function<std::string>(
          "--listen",
          [this](const std::string& text) {
            const std::size_t colon = text.rfind(':');
            const std::string port = colon == std::string::npos ? "" : text.substr(colon + 1);
            u16 number = 0;
            if (!CLI::detail::lexical_cast(port, number)) throw hostFault(text + ": is not ADDRESS:PORT");
            std::string address = text.substr(0, colon);
            if (address.starts_with('[') && address.ends_with(']'))
              address = address.substr(1, address.size() - 2);
            serve_.address = address;
            serve_.port = number;
          },
          "Listen here (default 127.0.0.1:8080; port 0 takes any free one)")
      ->type_name("ADDRESS:PORT");
  command->add_flag("--allow-publish", serve_.allowPublish, "Let clients record streams with PUT or POST");
  command->add_option("--token", serve_.token, "Require this token of publishers (default: none)")
      ->type_name("TEXT");
  command
      ->add_option("--mirror", serve_.library.mirrorFolder,
                   "Keep a second copy of each recording in this folder")
      ->type_name("FOLDER");
  addTime(command, "--flush-every", "Write to each recorded file this often (default 1s)",
          [this](u32 time) { serve_.library.flushInterval = std::chrono::milliseconds(time); });
  command
      ->add_option_function<u32>(
          "--cache", [this](u32 mebibytes) { serve_.library.cacheBytes = std::size_t{mebibytes} << 20; },
          "Keep up to this many MiB of loaded segments in memory (default 64)")
      ->type_name("MIB");
  command->add_option("--threads", serve_.moduleThreads, "Call the module on this many threads (default 4)")
      ->check(CLI::Range(1, 64));
  command->add_option("--most-connections", serve_.mostConnections,
                      "Refuse more connections than this (default 1000)");
  command
      ->add_option("--player", serve_.playerFile,
                   "Play on the page with this script: mpegts.js from npm (see make serve)")
      ->type_name("SCRIPT");
  command->callback([this] { chosen_ = [this] { return runServe(serve_); }; });
}

// For the build alone.
void CommandLine::addManual() {
  CLI::App* const command =
      app_.add_subcommand("manual", "Writes man pages and shell completion into a folder.");
  command->group("");
  command->add_option("FOLDER", manualFolder_)->required();
  command->callback([this] {
    chosen_ = [this] {
      writeManual(app_, manualFolder_);
      return ExitCode::good;
    };
  });
}

}  // namespace

int runCommandLine(int argc, const char* const* argv) {
  try {
    return CommandLine().run(argc, argv);
  } catch (const ReaderGone&) {
    return static_cast<int>(ExitCode::good);
  } catch (const Failure& failure) {
    report(failure.what());
    return static_cast<int>(failure.code());
  } catch (const KTOutOfMemory&) {
    report("out of memory");
  } catch (const KTBreakConnection&) {
    report("cannot parse the data");
    return static_cast<int>(ExitCode::fileFault);
  } catch (const KTThrowable&) {
    report("the module failed");
  } catch (const std::bad_alloc&) {
    report("out of memory");
  } catch (const std::exception& error) {
    report(error.what());
  }
  return static_cast<int>(ExitCode::hostFault);
}

}  // namespace orv::host
