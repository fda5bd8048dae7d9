// One AMF command or data message: a name, a transaction number, a command object and arguments. A data
// message has the name and the arguments alone.
//
// A reading command is complete when its constructor returns. What a soft failure left unread stays
// Undefined; unread arguments are absent, except for the one in which it came (server/KTCSerializer.h says
// what that holds). A writing one is filled in, made into one message, and destroyed.
//
// If memory fails, std::bad_alloc passes, nothing leaks, and the command can only be destroyed; or the value
// that needed the memory ends softly, and `failed` is set: a reader stops there, a writer leaves the value
// out.

#pragma once

#include <vector>

#include "server/KTCSerializer.h"
#include "server/KTMessage.h"

class KTCommand : public KTCSerializer {
 public:
  // Makes a writer of "_result", transaction 0, with a Null command object.
  KTCommand();
  // Read the payload of a message of type 20, 18, 17 or 15. In types 17 and 15 a byte 0 comes first: in a
  // message any byte is skipped; in raw bytes another one leaves every field Undefined, and a missing one is
  // a short read. Throw KTBreakConnection for an AMF0 marker that doesn't exist and, with `throwOnError`, for
  // any other failure.
  KTCommand(const orv::SingleMessagePtr& message, bool throwOnError);
  KTCommand(u8 type, const u8* data, u32 length, bool throwOnError);
  // Makes a writer of the same content.
  KTCommand(const KTCommand& other);
  KTCommand& operator=(const KTCommand&) = delete;
  ~KTCommand() = default;

  // Returns the place of the name in the table of reserved names; 0 for any other name.
  i32 commandCode() const { return commandCode_; }
  const KTData& name() const { return name_; }
  const KTData& transactionId() const { return transactionId_; }
  const KTData& commandObject() const { return commandObject_; }
  u32 argCount() const { return static_cast<u32>(args_.size()); }
  // Returns a shared Undefined past the end.
  const KTData& arg(u32 index) const;

  void setName(const char* name) { name_.setString(name); }
  void setResult() { setName("_result"); }
  void setError() { setName("_error"); }
  void setTransactionId(const KTData& id) { transactionId_ = id; }
  void setCommandCode(i32 code) { commandCode_ = code; }
  void addArg(const KTData& value) { args_.push_back(value); }
  // Appends to the command object, which becomes an Object if it is no container.
  void addCommandProperty(orv::KeyView key, const KTData& value);
  // Append to the first argument, which is made if there is none; one that is no container stays as it is.
  void addObjectProperty(orv::KeyView key, const KTData& value) { addProperty(KTData::Object, key, value); }
  void addArrayProperty(orv::KeyView key, const KTData& value) { addProperty(KTData::EcmaArray, key, value); }
  // Adds properties to the first argument: "level" and "code", "description" unless null or empty, "details"
  // unless null.
  void setStatus(const char* level, const char* code, const char* description, const char* details);

  // Write everything, or the name and the arguments, into the serializer's buffer.
  void serialize();
  void serializeData();
  // Return a new message, of an AMF3 type with encoding 3; null if the bytes exceed a message's 24-bit
  // length or there is no memory for them. Call once: a second call would repeat the first one's bytes.
  KTMessagePtr toCommandMessage();
  KTMessagePtr toDataMessage();

  // Returns the code of a name, without regard to case.
  static i32 codeOf(const KTData& name);

 private:
  void parse(u8 type);
  void readArgs();
  void addProperty(u8 containerType, orv::KeyView key, const KTData& value);
  void addTextProperty(const char* key, const char* text);
  KTMessagePtr toMessage(u8 amf0Type, u8 amf3Type, void (KTCommand::*writeValues)());

  i32 commandCode_ = 0;
  KTData name_;
  KTData transactionId_;
  KTData commandObject_;
  std::vector<KTData> args_;
};
