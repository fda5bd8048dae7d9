#include "AmfJson.h"

#include <fmt/format.h>

#include <chrono>
#include <cmath>
#include <map>
#include <set>

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

std::string hex(const u8* data, std::size_t size) {
  std::string text;
  text.reserve(size * 2);
  for (std::size_t i = 0; i < size; ++i) fmt::format_to(std::back_inserter(text), "{:02x}", data[i]);
  return text;
}

// Behind all entries that are there: an object of JSON would look each key up, one by one.
void append(Json& object, std::string_view key, Json value) {
  auto& entries = object.get_ref<Json::object_t&>();
  static_cast<Json::object_t::Container&>(entries).emplace_back(std::string(key), std::move(value));
}

Json numberJson(double number, bool isInteger) {
  if (!std::isfinite(number)) return {{"type", "number"}, {"text", fmt::format("{}", number)}};
  if (isInteger) return static_cast<i64>(number);
  return number;
}

// Empty for a time that no calendar tells.
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

Json bytesJson(const KTData& value) {
  const KTBuffer range = value.memoryRange();
  const u32 size = range.end - range.begin;
  return {{"type", "bytes"}, {"size", size}, {"hex", hex(range.data + range.begin, size)}};
}

// Of the values that one reader gave, which may share arrays: all are noted first.
class Printer {
 public:
  void note(const KTData& value);
  Json print(const KTData& value);

 private:
  Json plain(const KTData& value);
  Json container(const KTData& value, const KTDataArray& array);
  Json vector(u8 marker, const KTDataArray& array);
  Json dictionary(const KTDataArray& array);
  void addContent(Json& json, const KTDataArray& array, u32 first);
  static bool hasUniqueKeys(const KTDataArray& array, u32 first);

  std::set<const KTDataArray*> met_;
  std::map<const KTDataArray*, u32> ids_;  // Of shared arrays; 0 until shown.
  u32 lastId_ = 0;
  u32 level_ = 0;
};

void Printer::note(const KTData& value) {
  const KTDataArray* const array = value.asArray();
  if (!array || level_ == kMostLevels) return;
  if (!met_.insert(array).second) {
    ids_.emplace(array, 0);
    return;
  }
  ++level_;
  for (u32 i = 0; i < array->size(); ++i) note(array->valueAt(i));
  --level_;
}

Json Printer::print(const KTData& value) {
  const KTDataArray* const array = value.asArray();
  if (!array) return plain(value);
  if (level_ == kMostLevels) return {{"type", "deeper than is shown"}};
  const auto shared = ids_.find(array);
  const bool isShared = shared != ids_.end();
  if (isShared && shared->second != 0) return {{"type", "reference"}, {"to", shared->second}};
  const u32 id = isShared ? shared->second = ++lastId_ : 0;
  ++level_;
  Json json = container(value, *array);
  --level_;
  if (isShared) json["id"] = id;
  return json;
}

Json Printer::plain(const KTData& value) {
  switch (value.type()) {
    case KTData::Number:
      return numberJson(value.toDouble(), value.subtype() == amf3::kInteger);
    case KTData::Boolean:
      return value.toBool();
    case KTData::String:
      return value.text();
    case KTData::Null:
      return nullptr;
    case KTData::Date:
      return dateJson(value);
    case KTData::Xml:
      return {{"type", "xml"}, {"text", value.text()}};
    case KTData::Memory:
      return bytesJson(value);
    case KTData::Int64:
      return {{"type", "int64"}, {"value", value.toInt64()}};
    default:
      return {{"type", "undefined"}};
  }
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

Json Printer::container(const KTData& value, const KTDataArray& array) {
  if (amf3::isVector(value.subtype())) return vector(value.subtype(), array);
  if (value.subtype() == amf3::kDictionary) return dictionary(array);
  Json json = {{"type", containerName(array.type())}};
  const bool hasClass = (array.type() == KTData::TypedObject || array.type() == amf3::kObject) &&
                        array.size() > 0 && array.keyAt(0) == amf::kClassKey;
  if (hasClass && !array.valueAt(0).text().empty()) json["class"] = array.valueAt(0).text();
  addContent(json, array, hasClass ? 1 : 0);
  return json;
}

bool Printer::hasUniqueKeys(const KTDataArray& array, u32 first) {
  std::set<std::string_view> keys;
  for (u32 i = first; i < array.size(); ++i) {
    if (!keys.insert(array.keyAt(i).view()).second) return false;
  }
  return true;
}

void Printer::addContent(Json& json, const KTDataArray& array, u32 first) {
  const bool mayBeList = array.type() == kStrictArray || array.type() == amf3::kArray;
  if (mayBeList && array.hasIndexKeys()) {
    Json& values = json["values"] = Json::array();
    for (u32 i = first; i < array.size(); ++i) values.push_back(print(array.valueAt(i)));
  } else if (hasUniqueKeys(array, first)) {
    Json& entries = json["entries"] = Json::object();
    for (u32 i = first; i < array.size(); ++i) {
      append(entries, array.keyAt(i).view(), print(array.valueAt(i)));
    }
  } else {
    Json& pairs = json["pairs"] = Json::array();
    for (u32 i = first; i < array.size(); ++i) {
      pairs.push_back(Json::array({array.keyAt(i).view(), print(array.valueAt(i))}));
    }
  }
}

// The record's first entries describe it; the rest are its elements.
Json Printer::vector(u8 marker, const KTDataArray& array) {
  const bool ofObjects = marker == amf3::kVectorObject;
  const bool ofIntegers = marker == amf3::kVectorInt || marker == amf3::kVectorUint;
  Json json = {{"type", "amf3Vector"},
               {"of", ofObjects                     ? "object"
                      : marker == amf3::kVectorInt  ? "int"
                      : marker == amf3::kVectorUint ? "uint"
                                                    : "double"},
               {"fixed", array.valueAt(1).toBool()}};
  if (ofObjects) json["class"] = array.valueAt(2).text();
  Json& values = json["values"] = Json::array();
  for (u32 i = ofObjects ? 3 : 2; i < array.size(); ++i) {
    const KTData& element = array.valueAt(i);
    if (marker == amf3::kVectorInt) {
      values.push_back(element.toInt());  // They are read as unsigned.
    } else {
      values.push_back(ofIntegers ? Json(element.toUInt()) : print(element));
    }
  }
  return json;
}

Json Printer::dictionary(const KTDataArray& array) {
  Json json = {{"type", "amf3Dictionary"}, {"weak", array.valueAt(1).toBool()}};
  Json& pairs = json["pairs"] = Json::array();
  for (u32 i = 2; i + 1 < array.size(); i += 2) {
    pairs.push_back(Json::array({print(array.valueAt(i)), print(array.valueAt(i + 1))}));
  }
  return json;
}

Json rawJson(const Tag& tag) {
  return {{"bytes", hex(tag.data, tag.size)}};
}

}  // namespace

Json payloadJson(const Tag& tag) try {
  if (!tag.isData()) return rawJson(tag);
  const KTCommand command(tag.plainType(), tag.data, tag.size, false);
  Printer printer;
  printer.note(command.name());
  for (u32 i = 0; i < command.argCount(); ++i) printer.note(command.arg(i));
  Json json = {{"encoding", tag.plainType() == flv::kTypeDataAmf3 ? "AMF3" : "AMF0"},
               {"name", printer.print(command.name())},
               {"values", Json::array()}};
  for (u32 i = 0; i < command.argCount(); ++i) json["values"].push_back(printer.print(command.arg(i)));
  if (command.failed()) json["torn"] = true;
  return json;
} catch (const KTBreakConnection&) {
  return rawJson(tag);
}

Json valueJson(const std::vector<u8>& bytes) try {
  KTCSerializer reader(bytes.data(), static_cast<u32>(bytes.size()), false);
  KTData value;
  reader.readValue(value, false);
  Printer printer;
  printer.note(value);
  return printer.print(value);
} catch (const KTBreakConnection&) {
  return {{"bytes", hex(bytes.data(), bytes.size())}};
}

}  // namespace orv::host
