#include "host/flv/AmfJson.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include "server/AmfMarkers.h"
#include "server/KTCommand.h"
#include "util/KTThrowable.h"

namespace orv::host {

namespace {

using Json = nlohmann::ordered_json;

// What KTDataArray::type() says of where an array came from.
constexpr i32 kStrictArray = KTDataArray::kNoType;

// A reader nests no deeper than 64, but an array may be met first where it is referred to, a way below. Each
// level of a value takes a few calls here and in the JSON library.
constexpr u32 kMostLevels = 256;

Json numberJson(double number, bool isInteger) {
  if (!std::isfinite(number)) return {{"type", "number"}, {"text", fmt::format("{}", number)}};
  if (isInteger) return static_cast<i64>(number);
  return number;
}

// Returns an empty text for a time outside the calendar.
std::string dateText(double ms) {
  using namespace std::chrono;
  constexpr double kFarthest = 8.64e15;  // 100 million days on either side of 1970.
  if (!(std::abs(ms) <= kFarthest)) return {};
  const sys_time<milliseconds> time{milliseconds(static_cast<i64>(ms))};
  const auto day = floor<days>(time);
  const year_month_day date(day);
  const hh_mm_ss clock(time - day);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", static_cast<int>(date.year()),
                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                     clock.hours().count(), clock.minutes().count(), clock.seconds().count(),
                     clock.subseconds().count());
}

Json dateJson(const KTData& value) {
  Json json = {{"type", "date"}, {"ms", numberJson(value.dateMilliseconds(), false)}};
  const std::string text = dateText(value.dateMilliseconds());
  if (!text.empty()) json["text"] = text;
  if (value.timezone() != 0) json["timezone"] = value.timezone();
  return json;
}

// Writes the values that one reader gave, which may share arrays: all are noted first.
class Printer {
 public:
  explicit Printer(JsonWriter& out) : out_(out) {}
  // What only one value refers to needs no note: so a document of a million objects needs no list of them.
  // The reader's own tables must have been reset, since they count too.
  void note(const KTData& value);
  void print(const KTData& value);

 private:
  void plain(const KTData& value);
  void bytes(const KTData& value);
  void container(const KTData& value, const KTDataArray& array);
  void vector(u8 marker, const KTDataArray& array);
  void dictionary(const KTDataArray& array);
  void content(const KTDataArray& array, u32 first);
  void typed(const char* type) { out_.beginObject(), out_.member("type", type); }
  static bool hasUniqueKeys(const KTDataArray& array, u32 first);

  JsonWriter& out_;
  std::set<const KTDataArray*> met_;
  std::map<const KTDataArray*, u32> ids_;  // Of shared arrays; 0 until shown.
  u32 lastId_ = 0;
  u32 level_ = 0;
};

void Printer::note(const KTData& value) {
  KTDataArray* const array = value.asArray();
  if (!array || level_ == kMostLevels) return;
  if (array->getRefCount() > 1 && !met_.insert(array).second) {
    ids_.emplace(array, 0);
    return;
  }
  ++level_;
  for (u32 i = 0; i < array->size(); ++i) note(std::as_const(*array).valueAt(i));
  --level_;
}

void Printer::print(const KTData& value) {
  const KTDataArray* const array = value.asArray();
  if (!array) return plain(value);
  if (level_ == kMostLevels) return out_.value({{"type", "deeper than is shown"}});
  const auto shared = ids_.find(array);
  const bool isShared = shared != ids_.end();
  if (isShared && shared->second != 0) return out_.value({{"type", "reference"}, {"to", shared->second}});
  const u32 id = isShared ? shared->second = ++lastId_ : 0;
  ++level_;
  container(value, *array);
  --level_;
  if (isShared) out_.member("id", id);
  out_.end();
}

void Printer::plain(const KTData& value) {
  switch (value.type()) {
    case KTData::Number:
      return out_.value(numberJson(value.toDouble(), value.subtype() == amf3::kInteger));
    case KTData::Boolean:
      return out_.value(value.toBool());
    case KTData::String:
      return out_.text(value.text());
    case KTData::Null:
      return out_.value(nullptr);
    case KTData::Date:
      return out_.value(dateJson(value));
    case KTData::Xml:
      typed("xml");
      out_.textMember("text", value.text());
      return out_.end();
    case KTData::Memory:
      return bytes(value);
    case KTData::Int64:
      return out_.value({{"type", "int64"}, {"value", value.toInt64()}});
    default:
      return out_.value({{"type", "undefined"}});
  }
}

void Printer::bytes(const KTData& value) {
  const KTBuffer range = value.memoryRange();
  const u32 size = range.end - range.begin;
  typed("bytes");
  out_.member("size", size);
  out_.hexMember("hex", range.data + range.begin, size);
  out_.end();
}

const char* containerName(i32 type) {
  switch (type) {
    case KTData::Object:
      return "object";
    case KTData::EcmaArray:
      return "ecmaArray";
    case KTData::TypedObject:
      return "typedObject";
    case amf3::kArray:
      return "amf3Array";
    case amf3::kObject:
      return "amf3Object";
    default:
      return "strictArray";
  }
}

// The object that stands for the array, which is left open.
void Printer::container(const KTData& value, const KTDataArray& array) {
  if (amf3::isVector(value.subtype())) return vector(value.subtype(), array);
  if (value.subtype() == amf3::kDictionary) return dictionary(array);
  typed(containerName(array.type()));
  IndexText indexText;
  const bool hasClass = (array.type() == KTData::TypedObject || array.type() == amf3::kObject) &&
                        array.size() > 0 && array.keyText(0, indexText) == amf::kClassKey;
  if (hasClass && !array.valueAt(0).text().empty()) out_.textMember("class", array.valueAt(0).text());
  content(array, hasClass ? 1 : 0);
}

bool Printer::hasUniqueKeys(const KTDataArray& array, u32 first) {
  if (array.hasIndexKeys()) return true;
  std::vector<std::string_view> keys(array.size() - first);
  IndexText indexText;  // Not used: these keys lie in the array.
  for (u32 i = first; i < array.size(); ++i) keys[i - first] = array.keyText(i, indexText);
  std::sort(keys.begin(), keys.end());
  return std::adjacent_find(keys.begin(), keys.end()) == keys.end();
}

void Printer::content(const KTDataArray& array, u32 first) {
  const bool isList = (array.type() == kStrictArray || array.type() == amf3::kArray) && array.hasIndexKeys();
  const bool isMap = !isList && hasUniqueKeys(array, first);
  out_.key(isList ? "values" : isMap ? "entries" : "pairs");
  isMap ? out_.beginObject() : out_.beginArray();
  IndexText indexText;
  for (u32 i = first; i < array.size(); ++i) {
    const bool isPair = !isList && !isMap;
    if (isPair) out_.beginArray();
    if (isMap) out_.key(array.keyText(i, indexText));
    if (isPair) out_.text(array.keyText(i, indexText));
    print(array.valueAt(i));
    if (isPair) out_.end();
  }
  out_.end();
}

const char* elementName(u8 vectorMarker) {
  switch (vectorMarker) {
    case amf3::kVectorInt:
      return "int";
    case amf3::kVectorUint:
      return "uint";
    case amf3::kVectorDouble:
      return "double";
    default:
      return "object";
  }
}

void Printer::vector(u8 marker, const KTDataArray& array) {
  typed("amf3Vector");
  out_.member("of", elementName(marker));
  out_.member("fixed", array.valueAt(amf3::kFlagEntry).toBool());
  const bool ofObjects = marker == amf3::kVectorObject;
  if (ofObjects) out_.textMember("class", array.valueAt(amf3::kVectorClassEntry).text());
  out_.key("values");
  out_.beginArray();
  for (u32 i = amf3::recordHeaderSize(marker); i < array.size(); ++i) {
    const KTData& element = array.valueAt(i);
    if (marker == amf3::kVectorInt) {
      out_.value(element.toInt());  // They are read as unsigned.
    } else if (marker == amf3::kVectorUint) {
      out_.value(element.toUInt());
    } else {
      print(element);
    }
  }
  out_.end();
}

void Printer::dictionary(const KTDataArray& array) {
  typed("amf3Dictionary");
  out_.member("weak", array.valueAt(amf3::kFlagEntry).toBool());
  out_.key("pairs");
  out_.beginArray();
  for (u32 i = amf3::recordHeaderSize(amf3::kDictionary); i + 1 < array.size(); i += 2) {
    out_.beginArray();
    print(array.valueAt(i));
    print(array.valueAt(i + 1));
    out_.end();
  }
  out_.end();
}

void writeCommand(KTCommand& command, u8 type, JsonWriter& out) {
  command.resetTables();
  Printer printer(out);
  printer.note(command.name());
  for (u32 i = 0; i < command.argCount(); ++i) printer.note(command.arg(i));
  out.member("encoding", type == flv::kTypeDataAmf3 ? "AMF3" : "AMF0");
  out.key("name");
  printer.print(command.name());
  out.key("values");
  out.beginArray();
  for (u32 i = 0; i < command.argCount(); ++i) printer.print(command.arg(i));
  out.end();
  if (command.failed()) out.member("torn", true);
}

}  // namespace

void writePayload(const Tag& tag, JsonWriter& out) {
  std::optional<KTCommand> command;
  try {
    if (tag.isData()) command.emplace(tag.plainType(), tag.data, tag.size, false);
  } catch (const KTBreakConnection&) {
    command.reset();
  }
  if (command) return writeCommand(*command, tag.plainType(), out);
  out.hexMember("bytes", tag.data, tag.size);
}

void writeAmfValue(const std::vector<u8>& bytes, JsonWriter& out) {
  KTCSerializer reader(bytes.data(), static_cast<u32>(bytes.size()), false);
  KTData value;
  bool readable = true;
  try {
    reader.readValue(value, true);
  } catch (const KTBreakConnection&) {
    readable = false;
  }
  if (readable) {
    Printer printer(out);
    printer.note(value);
    return printer.print(value);
  }
  out.beginObject();
  out.hexMember("bytes", bytes.data(), static_cast<u32>(bytes.size()));
  out.end();
}

}  // namespace orv::host
