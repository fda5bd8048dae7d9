// What people and encoders give to flvhost. The first byte says what the rest is: 0 a time as a person writes
// it, 1 a data tag to be shown as JSON, anything else a stream on the standard input of `record`, which comes
// in pieces of so many bytes.
//
// A time that is taken is the same when it is written and read again; what is shown is JSON; a recording of
// any bytes is a file of whole tags, as many as were counted, and can be read to its end.

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "Choices.h"
#include "host/flv/AmfJson.h"
#include "host/flv/FlvReader.h"
#include "host/flv/MetadataReserve.h"
#include "host/flv/WholeTags.h"
#include "host/module/Recording.h"
#include "host/text/Failure.h"
#include "host/text/JsonWriter.h"
#include "host/text/TimeText.h"

namespace orv::host {
namespace {

const bool kQuiet = std::freopen("/dev/null", "w", stdout) != nullptr;

void readTime(std::string_view text) {
  const auto time = parseTime(text);
  if (time) HOLDS(parseTime(timeText(*time)) == time);
}

void showPayload(const u8* data, std::size_t size) {
  std::string shown;
  JsonWriter out([&](const std::string& text) { shown += text; });
  out.beginObject();
  writePayload({data[0], 0, 0, data + 1, static_cast<u32>(size - 1)}, out);
  out.end();
  out.finish();
  HOLDS(nlohmann::json::accept(shown));
}

CommonOptions recordOptions() {
  CommonOptions options{.module = FLV_MODULE_PATH, .settings = {}};
  options.settings.setDefault(Settings::kRecordCodecs, "all");
  return options;
}

class RecordedInput {
 public:
  RecordedInput() { std::filesystem::remove(name_); }
  ~RecordedInput() { std::filesystem::remove(name_); }

  void feed(const u8* data, std::size_t size, std::size_t piece) {
    try {
      bool goesOn = true;
      for (std::size_t at = 0; goesOn && at < size; at += piece)
        goesOn = reader_.feed(data + at, std::min(piece, size - at));
      reserve_.finish();
      if (recording_) recording_->finish();
    } catch (const Failure&) {  // A file that falls apart isn't gone on with.
    }
    HOLDS(session().writeFaults() == 0);
    if (recording_ && std::filesystem::exists(name_)) expectSound();
  }

 private:
  static Session& session() {
    static Session shared(recordOptions());
    return shared;
  }
  Recording& recording() {
    if (!recording_) recording_.emplace(session(), target_, RecordingOptions{});
    return *recording_;
  }
  void expectSound() const {
    const auto size = static_cast<i64>(std::filesystem::file_size(name_));
    const WholeTags whole = followTags(ReadOnlyFile(name_), flv::kFirstTagPosition, size);
    HOLDS(whole.end == size && whole.count == recording_->tally().tags);
    HOLDS(recording_->isReadable());
  }

  const std::string name_ =
      (std::filesystem::temp_directory_path() / ("host_fuzz" + std::to_string(getpid()) + ".flv")).string();
  RecordTarget target_{name_, "", Onto::newFile};
  std::optional<Recording> recording_;
  MetadataReserve reserve_{[this](const Tag& tag) { recording().take(tag); }};
  FlvReader reader_{[this](const Tag& tag) { reserve_.take(tag); }};
};

}  // namespace
}  // namespace orv::host

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
  using namespace orv::host;
  if (size < 2) return 0;
  if (data[0] == 0) {
    readTime({reinterpret_cast<const char*>(data + 1), size - 1});
  } else if (data[0] == 1) {
    showPayload(data + 1, size - 1);
  } else {
    RecordedInput().feed(data + 1, size - 1, data[0] * std::size_t{data[0]});
  }
  return 0;
}
