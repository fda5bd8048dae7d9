#include <gtest/gtest.h>

#include "ServerTest.h"
#include "support/HeapWatch.h"
#include "util/KTThrowable.h"

namespace orv::test {
namespace {

std::string summary(const KTCommand& command) {
  std::string text = std::to_string(command.commandCode()) + ' ' + describe(command.name()) + ' ' +
                     describe(command.transactionId()) + ' ' + describe(command.commandObject());
  for (u32 i = 0; i < command.argCount(); ++i) text += ", " + describe(command.arg(i));
  return text;
}

// A message is read as such and as raw bytes, with the same result but for the byte in front of AMF3 types.
TEST(KTCommand, parse) {
  const struct {
    u8 type;
    const char* payload;
    const char* result;
    const char* rawResult = nullptr;
  } kRows[] = {
      {18, "", "0 Undefined 0 Undefined"},
      {20, "", "0 Undefined Undefined Undefined"},
      {20, "02 0004'PLAY'", "12 \"PLAY\" Undefined Undefined"},
      {20, "02 0004'seek' 00 3FF0000000000000 05 05 01 01", "17 \"seek\" 1 Null, Null, true"},
      {18, "02 000A'onMetaData' 08 00000000 0001'a' 05 000009",
       "0 \"onMetaData\" 0 Undefined, EcmaArray[8]{a: Null}"},
      {15, "00 02 000A'onMetaData' 11 09 01 03'a' 01 01",
       "0 \"onMetaData\" 0 Undefined, EcmaArray#9[9]{a: Null#1}"},
      {17, "00 02 0004'play' 00 00(8) 05 11 04 05", "12 \"play\" 0 Null, 5#4"},
      {17, "01 02 0004'play'", "12 \"play\" Undefined Undefined", "0 Undefined Undefined Undefined"},
      // What an old writer puts behind the last value, and a name that isn't text.
      {18, "02 0001'a' 05 000009", "0 \"a\" 0 Undefined, Null, 0"},
      {18, "05 05", "0 Null 0 Undefined, Null"},
      {18, "0F 00000004'play'", "0 Xml\"play\" 0 Undefined"},
      {20, "02 0004'pl'", "0 \"\" Undefined Undefined"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.payload);
    const Bytes payload = bytesOf(row.payload);
    EXPECT_EQ(summary(KTCommand(messageOf(row.type, payload).get(), false)), row.result);
    const KTCommand raw = commandOf(row.type, payload);
    EXPECT_EQ(summary(raw), row.rawResult ? row.rawResult : row.result);
    const KTCommand copy(raw);
    EXPECT_EQ(summary(copy), summary(raw));
    EXPECT_TRUE(copy.writing());
  }
  EXPECT_EQ(describe(KTCommand().arg(0)), "Undefined");
  EXPECT_EQ(summary(KTCommand()), "0 \"_result\" 0 Null");
}

TEST(KTCommand, aMessageThatLiesAboutItsLengthIsReadAsFarAsItGoes) {
  const KTMessagePtr message = messageOf(18, bytesOf("02 0001'a'"));
  message->reserve(3);
  message->setLength(0xFFFFFF, false);
  EXPECT_EQ(KTCommand(message.get(), false).name().text(), "a");
  message->memory = nullptr;
  EXPECT_EQ(summary(KTCommand(message.get(), false)), "0 Undefined 0 Undefined");
  EXPECT_EQ(summary(KTCommand(nullptr, false)), "0 Undefined Undefined Undefined");
}

TEST(KTCommand, theNameDecidesTheCode) {
  const char* const kReserved[] = {
      "",           "@getStats",   "closeStream", "connect",      "createStream", "deleteStream",
      "initStream", "loadSegment", "onMCastJoin", "onStatus",     "pause",        "pauseRaw",
      "play",       "play2",       "publish",     "receiveAudio", "receiveVideo", "seek"};
  for (i32 code = 0; code < 18; ++code) EXPECT_EQ(KTCommand::codeOf(text(kReserved[code])), code);
  EXPECT_EQ(KTCommand::codeOf(text("SEEK")), 17);
  for (const char* other : {"seeking", "see", "zzz", "a"}) EXPECT_EQ(KTCommand::codeOf(text(other)), 0);
}

TEST(KTCommand, propertiesFindOrMakeTheirContainer) {
  KTCommand command, plain, terse, full;
  command.addCommandProperty("a", number(1));
  command.addCommandProperty("b", number(2));
  command.addArrayProperty("c", number(3));
  command.addObjectProperty("d", number(4));
  EXPECT_EQ(summary(command), "0 \"_result\" 0 Object[6]{a: 1, b: 2}, EcmaArray[6]{c: 3, d: 4}");
  plain.addArg(number(1));
  plain.addObjectProperty("a", number(2));
  EXPECT_EQ(summary(plain), "0 \"_result\" 0 Null, 1");
  terse.setStatus("error", "Code", "", nullptr);
  EXPECT_EQ(describe(terse.arg(0)), "Object[6]{level: \"error\", code: \"Code\"}");
  full.setStatus("error", "Code", "Why", "");
  EXPECT_EQ(describe(full.arg(0)),
            "Object[6]{level: \"error\", code: \"Code\", description: \"Why\", details: \"\"}");
}

TEST(KTCommand, messages) {
  const struct {
    i32 encoding;
    bool data;
    u8 type;
    const char* payload;
  } kRows[] = {
      {0, true, 18, "02 000A'onMetaData' 08 00000000 0008'duration' 00 00(8) 000009"},
      {0, false, 20, "02 000A'onMetaData' 00 4000000000000000 05 08 00000000 0008'duration' 00 00(8) 000009"},
      {3, true, 15, "00 02 000A'onMetaData' 11 09 01 11'duration' 04 00 01"},
      {3, false, 17, "00 02 000A'onMetaData' 00 4000000000000000 05 11 09 01 11'duration' 04 00 01"},
  };
  for (const auto& row : kRows) {
    KTCommand command;
    command.setEncoding(row.encoding);
    command.setName("onMetaData");
    command.setTransactionId(number(2));
    command.addArrayProperty("duration", number(0));
    const KTMessagePtr message = row.data ? command.toDataMessage() : command.toCommandMessage();
    EXPECT_EQ(message->type(), row.type);
    EXPECT_EQ(message->streamId(), 0U);
    EXPECT_EQ(hexOf(bytesIn(*message)), hexOf(bytesOf(row.payload)));
  }
}

TEST(KTCommand, aCommandThatNoMessageCanCarryGivesNone) {
  KTCommand command;
  const KTData half = text(std::string(0x800000, 'x').c_str());
  command.addArg(half);
  EXPECT_TRUE(command.toDataMessage());
  KTCommand longer(command);
  longer.addArg(half);
  EXPECT_FALSE(longer.toDataMessage());
}

// What comes out where memory fails once: whole values, or the allocator's exception.
void readAndWriteWithFailures(const Bytes& payload, i32 encoding) {
  const std::string whole = summary(commandOf(18, payload));
  bool fired = true;
  for (std::size_t n = 1; fired; ++n) {
    HeapWatch heap;
    heap.failAt(n);
    try {
      const KTCommand read = commandOf(18, payload);
      KTCommand writer(read), sound(read);
      writer.setEncoding(encoding);
      const KTMessagePtr message = writer.toDataMessage();
      fired = !heap.failurePending();
      heap.failAt(0);
      EXPECT_TRUE(read.failed() || summary(read) == whole);
      sound.setEncoding(encoding);
      EXPECT_TRUE(!message || writer.failed() || bytesIn(*message) == bytesIn(*sound.toDataMessage()));
    } catch (const std::bad_alloc&) {
    }
    EXPECT_EQ(heap->live, 0U) << n;
  }
}

TEST(KTCommand, survivesFailedAllocations) {
  std::vector<std::string> payloads = {
      "03 0001'b' 02 0001'c' 0001'd' 0A 00000002 05 02 012C 'x'(300) 0001'e' 11 0B 03'x' 0001'f' "
      "20 00000001 07 0001'g' 02 012C 'x'(300) 000009"};
  for (const AmfCase& form : amfCases()) payloads.push_back(form.bytes);
  for (const std::string& payload : payloads) {
    SCOPED_TRACE(payload);
    for (const i32 encoding : {0, 3}) readAndWriteWithFailures(bytesOf("02 0001'a' " + payload), encoding);
  }
}

}  // namespace
}  // namespace orv::test
