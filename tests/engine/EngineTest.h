// What the tests of the reading road share: the loaded module over a host in memory.

#pragma once

#include <gtest/gtest.h>

#include <tuple>

#include "QuietReads.h"
#include "support/FlvBuilder.h"
#include "support/MemoryHost.h"
#include "support/Module.h"

inline bool operator==(const SegmentBounds& a, const SegmentBounds& b) {
  return std::tie(a.startPosition, a.endPosition, a.startTime, a.endTime) ==
         std::tie(b.startPosition, b.endPosition, b.startTime, b.endTime);
}

namespace orv::test {

inline constexpr i64 kBlock = 0x40000;  // Segments are cut where tags hold multiples of it.
inline constexpr u8 kAudio = flv::kTypeAudio;
inline constexpr u8 kVideo = flv::kTypeVideo;

// Each test must leave no descriptor open and must have used none wrongly.
class EngineTest : public testing::Test {
 protected:
  static inline const char* const kName = "c:\\media\\film";
  static inline const char* const kFile = "c:\\media\\film.flv";
  using Settings = std::map<std::string, std::string>;

  void TearDown() override {
    adaptor_.reset();
    EXPECT_EQ(host.openDescriptors(), 0u);
    EXPECT_EQ(host.misuses(), 0u);
  }

  static const Module& module() {
    static const Module loaded(FLV_MODULE_PATH);
    return loaded;
  }
  // Takes effect with streams opened from now on.
  void configure(const Settings& settings) {
    host.settings = settings;
    adaptor_ = module().create(host);
  }
  Stream open(const FlvBuilder& film) { return open(FileImage(film.bytes())); }
  Stream open(FileImage image) {
    host.put(kFile, std::move(image));
    return open();
  }
  Stream open() { return Stream(adaptor(), kName); }
  // What the film has gained since it was opened reaches the file.
  void grow(const FlvBuilder& film) {
    host.append(kFile, {film.bytes().begin() + host.file(kFile).image.size(), film.bytes().end()});
  }
  IQVStreamAdaptor& adaptor() {
    if (!adaptor_) adaptor_ = module().create(host);
    return *adaptor_;
  }

  QuietReads reads;
  MemoryHost host;

 private:
  std::unique_ptr<IQVStreamAdaptor> adaptor_;
};

// The tags of a file as a load with single tags delivers them.
inline std::vector<Message> messagesOf(const FlvBuilder& film) {
  std::vector<Message> messages;
  for (const BuiltTag& tag : film.tags()) {
    const auto data = film.bytes().begin() + tag.position + flv::kTagHeaderSize;
    messages.push_back({tag.type, tag.time, Bytes(data, data + tag.size)});
  }
  return messages;
}

// Everything, segment by segment.
inline std::vector<Message> loadAll(Stream& stream) {
  std::vector<Message> messages;
  for (const SegmentBounds& segment : stream.walk())
    for (Message& message : stream.load(segment)) messages.push_back(std::move(message));
  return messages;
}

}  // namespace orv::test
