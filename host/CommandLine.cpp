#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <functional>

#include "Commands.h"
#include "Console.h"
#include "TimeText.h"

namespace orv::host {

namespace {

constexpr char kExitCodes[] =
    "Exit codes: 0 good; 1 the file's fault; 2 wrong usage, or the system's fault (a missing file, a full "
    "disk).";

// The subcommands with what each was told.
class CommandLine {
 public:
  CommandLine() {
    app_.require_subcommand(0, 1);
    app_.footer(std::string("flvhost COMMAND --help tells more, with an example.\n") + kExitCodes);
    addInfo();
    addSegments();
    addSeek();
    addPlay();
    addRecord();
    addFollow();
    addMeta();
    addContexts();
    addDemo();
  }

  int run(int argc, const char* const* argv) {
    try {
      app_.parse(argc, argv);
      if (!chosen_) throw hostFault("a command is wanted; see flvhost --help");
      return static_cast<int>(chosen_());
    } catch (const CLI::CallForHelp&) {
      print(app_.help());
      flushOutput();
      return static_cast<int>(ExitCode::good);
    } catch (const CLI::ParseError& error) {
      tell(std::string(error.what()) + "; see flvhost --help");
      return static_cast<int>(ExitCode::hostFault);
    }
  }

 private:
  void addInfo();
  void addSegments();
  void addSeek();
  void addPlay();
  void addRecord();
  void addFollow();
  void addMeta();
  void addContexts();
  void addDemo();

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
  FollowOptions follow_;
  MetaOptions meta_;
  ContextsOptions contexts_;
  DemoOptions demo_;
};

CLI::App* CommandLine::addCommand(const char* name, const char* description, const char* example,
                                  CommonOptions& common) {
  CLI::App* const command = app_.add_subcommand(name, description);
  command->footer(std::string("Example:\n  ") + example + "\n\n" + kExitCodes);
  command
      ->add_option("--module", common.module,
                   "The storage module; else $FLVADAPTOR_MODULE, else near flvhost")
      ->type_name("PATH");
  command
      ->add_option_function<std::string>(
          "--set", [&common](const std::string& assignment) { common.settings.assign(assignment); },
          "A setting of the module, such as EnableAggMsgs=false; may be given several times")
      ->type_name("Key=Value")
      ->trigger_on_parse()
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->allow_extra_args(false);
  command->add_flag("--stats", common.stats, "Tell the host calls and the bytes read, on standard error");
  command->add_flag_callback("--verbose", showModuleOutput,
                             "Show on standard error what the module itself prints: failed reads");
  return command;
}

CLI::Option* CommandLine::addTime(CLI::App* command, const char* name, const char* description,
                                  std::function<void(u32)> take) {
  return command
      ->add_option_function<std::string>(
          name,
          [take = std::move(take)](const std::string& text) {
            const std::optional<u32> time = parseTime(text);
            if (!time) throw hostFault(text + ": isn't a time; [HH:]MM:SS[.mmm] or S[.mmm][s|ms] is");
            take(*time);
          },
          description)
      ->type_name("TIME");
}

void CommandLine::addInfo() {
  CLI::App* const command = addCommand("info", "Tells what files hold: size, playable end, duration, codecs.",
                                       "flvhost info clip.flv other.flv --json", info_.common);
  command->add_option("FILE", info_.files, "FLV files")->required();
  command->add_flag("--json", info_.json, "One JSON document");
  command->add_flag("--count", info_.count, "Read each file whole and count its tags");
  command->callback([this] { chosen_ = [this] { return runInfo(info_); }; });
}

void CommandLine::addSegments() {
  CLI::App* const command = addCommand("segments", "Lists the segments in which a file is played.",
                                       "flvhost segments clip.flv", segments_.common);
  command->add_option("FILE", segments_.file, "An FLV file")->required();
  command->add_flag("--json", segments_.json, "One JSON document");
  command->callback([this] { chosen_ = [this] { return runSegments(segments_); }; });
}

void CommandLine::addSeek() {
  CLI::App* const command = addCommand("seek", "Finds the segment that holds a time.",
                                       "flvhost seek clip.flv 1:02:03.250", seek_.common);
  command->add_option("FILE", seek_.file, "An FLV file")->required();
  addTime(command, "TIME", "[HH:]MM:SS[.mmm] or S[.mmm][s|ms]", [this](u32 time) {
    seek_.time = time;
  })->required();
  command->add_flag("--json", seek_.json, "One JSON document");
  command->callback([this] { chosen_ = [this] { return runSeek(seek_); }; });
}

void CommandLine::addPlay() {
  CLI::App* const command =
      addCommand("play", "Plays a file out: to a file or a pipe, or just to tell what was delivered.",
                 "flvhost play clip.flv --from 1:30 --to 2:00 -o - | ffplay -", play_.common);
  command->add_option("FILE", play_.file, "An FLV file")->required();
  addTime(command, "--from", "Start at the last key frame at or before this time",
          [this](u32 time) { play_.from = time; });
  addTime(command, "--to", "Stop before this time", [this](u32 time) { play_.to = time; });
  command->add_option("-o,--output", play_.output, "A new FLV file; - for standard output")->type_name("OUT");
  command->add_flag_callback(
      "--force", [this] { play_.existing = Existing::replace; }, "Replace OUT if it exists");
  command->add_flag(
      "--aggregates", play_.aggregates,
      "Write aggregates as tags of type 22, for readers that know them, instead of unpacking them");
  command->add_flag("--verify", play_.verify, "Hold each delivered tag against the file, byte by byte");
  command->callback([this] {
    if (play_.from && play_.to && *play_.from >= *play_.to) throw hostFault("--from must lie before --to");
    chosen_ = [this] { return runPlay(play_); };
  });
}

void CommandLine::addRecord() {
  CLI::App* const command = addCommand(
      "record", "Records a live FLV stream from standard input into a file that others can already play.",
      "ffmpeg -re -i in.mp4 -c:v flv1 -c:a libmp3lame -ar 44100 -f flv - | flvhost record live.flv",
      record_.common);
  command->add_option("FILE", record_.file, "The FLV file to record into")->required();
  addTime(command, "--flush-every", "Write what has come to the file each so often; 1s if not given",
          [this](u32 time) { record_.flushEvery = time; });
  command->add_option("--backup", record_.backup, "Keep a second file, equal to FILE after each flush")
      ->type_name("COPY");
  CLI::Option* const append = command->add_flag_callback(
      "--append", [this] { record_.onto = Onto::append; },
      "Go on behind what FILE holds; times are recorded as they come");
  command
      ->add_flag_callback(
          "--overwrite", [this] { record_.onto = Onto::overwrite; },
          "Erase FILE first, once the stream has begun")
      ->excludes(append);
  command->add_flag("--reserve-metadata", record_.reserveMetadata,
                    "Add to the stream's onMetaData what each flush brings up to date: duration, codecs, "
                    "canSeekToEnd; make one if the stream has none. Not where --append goes on behind tags");
  command->callback([this] { chosen_ = [this] { return runRecord(record_); }; });
}

void CommandLine::addFollow() {
  CLI::App* const command =
      addCommand("follow", "Plays a file that is being recorded, and goes on as it grows, until Ctrl-C.",
                 "flvhost follow live.flv -o - | ffplay -", follow_.common);
  command->add_option("FILE", follow_.file, "An FLV file")->required();
  command->add_option("-o,--output", follow_.output, "A new FLV file; - for standard output")
      ->type_name("OUT");
  command->add_flag_callback(
      "--force", [this] { follow_.existing = Existing::replace; }, "Replace OUT if it exists");
  addTime(command, "--until-idle", "Stop once the file hasn't grown for this long",
          [this](u32 time) { follow_.untilIdle = time; });
  command->callback([this] { chosen_ = [this] { return runFollow(follow_); }; });
}

void CommandLine::addMeta() {
  CLI::App* const command = addCommand("meta", "Shows the metadata at a file's head as JSON.",
                                       "flvhost meta clip.flv", meta_.common);
  command->add_option("FILE", meta_.file, "An FLV file")->required();
  command->add_flag("--raw", meta_.raw, "Dump the bytes instead");
  command->callback([this] { chosen_ = [this] { return runMeta(meta_); }; });
}

void CommandLine::addContexts() {
  CLI::App* const command =
      addCommand("contexts", "Shows as JSON what a server gets as a file's media contexts.",
                 "flvhost contexts clip.flv", contexts_.common);
  command->add_option("FILE", contexts_.file, "An FLV file")->required();
  command->callback([this] { chosen_ = [this] { return runContexts(contexts_); }; });
}

void CommandLine::addDemo() {
  CLI::App* const command = addCommand(
      "demo", "Shows a file's summary, its segments, a seek, a checked play-out, and a live recording of it.",
      "flvhost demo clip.flv", demo_.common);
  command->add_option("FILE", demo_.file, "An FLV file")->required();
  command->callback([this] { chosen_ = [this] { return runDemo(demo_); }; });
}

}  // namespace

int runCommandLine(int argc, const char* const* argv) {
  try {
    return CommandLine().run(argc, argv);
  } catch (const ReaderGone&) {
    return static_cast<int>(ExitCode::good);
  } catch (const Failure& failure) {
    tell(failure.what());
    return static_cast<int>(failure.code());
  } catch (const std::exception& error) {
    tell(error.what());
    return static_cast<int>(ExitCode::hostFault);
  }
}

}  // namespace orv::host
