#include "util/DateParser.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "platform/Numbers.h"

namespace orv::util {

namespace {

constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr i32 kFirstYear = 1970, kLastYear = 2020;
constexpr std::size_t kMonthLetters = 3;

bool isDigit(char character) {
  return character >= '0' && character <= '9';
}

const char* skipBlanks(const char* text) {
  while (*text == ' ') ++text;
  return text;
}

i32 monthIndex(std::string_view name) {
  for (i32 month = 0; month < 12; ++month) {
    if (name == kMonths[month]) return month;
  }
  return -1;
}

// Walks the text field by field; stops for good at its end.
class Fields {
 public:
  explicit Fields(const char* text) : at_(text) {}

  i32 number() {
    const i32 value = orv::platform::parseInt32(at_);
    at_ += std::strspn(at_, " \t\n\v\f\r");
    if (*at_ == '-' || *at_ == '+') ++at_;
    while (isDigit(*at_)) ++at_;
    stepOverSeparator();
    return value;
  }

  // The next letters that name a month; others, a weekday for one, are passed over. -1 when there are none.
  i32 month() {
    for (; *at_; ++at_) {
      const i32 month = monthIndex(std::string_view(at_, strnlen(at_, kMonthLetters)));
      if (month < 0) continue;
      at_ += kMonthLetters;
      stepOverSeparator();
      return month;
    }
    return -1;
  }

 private:
  void stepOverSeparator() {
    if (*at_) ++at_;
  }

  const char* at_;
};

void readClock(Fields& fields, std::tm* time) {
  time->tm_hour = fields.number();
  time->tm_min = fields.number();
  time->tm_sec = fields.number();
}

// day, month name, year, clock
bool readDayFirst(const char* text, std::size_t shortest, std::tm* time) {
  if (std::strlen(text) < shortest) return false;
  Fields fields(text);
  time->tm_mday = fields.number();
  time->tm_mon = fields.month();
  time->tm_year = fields.number();
  readClock(fields, time);
  return true;
}

// month name, day, clock, year
bool readMonthFirst(const char* text, std::tm* time) {
  if (std::strlen(text) < 24) return false;
  Fields fields(text);
  time->tm_mon = fields.month();
  time->tm_mday = fields.number();
  readClock(fields, time);
  time->tm_year = fields.number();
  return true;
}

// year, month index, day, clock
bool readYearFirst(const char* text, std::tm* time) {
  if (std::strlen(text) < 21) return false;
  Fields fields(text);
  time->tm_year = fields.number();
  time->tm_mon = fields.number();
  time->tm_mday = fields.number();
  readClock(fields, time);
  return true;
}

bool readByShape(const char* text, std::tm* time) {
  if (const char* const comma = std::strchr(text, ',')) {
    const char* const behind = skipBlanks(comma + 1);
    return readDayFirst(behind, std::strchr(behind, '-') ? 18 : 20, time);
  }
  return isDigit(*text) ? readYearFirst(text, time) : readMonthFirst(text, time);
}

bool within(i32 value, i32 first, i32 last) {
  return value >= first && value <= last;
}

bool fieldsInRange(const std::tm& time) {
  return within(time.tm_sec, 0, 59) && within(time.tm_min, 0, 59) && within(time.tm_hour, 0, 23) &&
         within(time.tm_mday, 1, 31) && within(time.tm_mon, 0, 11) &&
         within(time.tm_year, kFirstYear, kLastYear);
}

}  // namespace

bool isBareNumber(const char* text) {
  return isDigit(*text) && !std::strchr(text, ',') && !std::strchr(text, 'T');
}

bool parseDate(const char* text, std::tm* time) {
  *time = {};
  if (!readByShape(text, time) || !fieldsInRange(*time)) return false;
  time->tm_year -= 1900;
  time->tm_isdst = -1;
  return true;
}

}  // namespace orv::util
