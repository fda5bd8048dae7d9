// Dates as texts, for KTTimeSpan::parse.

#pragma once

#include <ctime>

namespace orv::util {

// True when `text`, which is not null, is a bare number: it starts with a digit and holds neither a comma nor
// a "T".
bool isBareNumber(const char* text);

// Reads a date of any other shape into a local time whose daylight saving the calendar decides. False when it
// is too short, a field lies outside its range, or no month is named.
bool parseDate(const char* text, std::tm* time);

}  // namespace orv::util
