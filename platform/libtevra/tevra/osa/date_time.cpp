#include <cinttypes>
#include <cstdio>
#include <string_view>

#include "tevra/osa/exception.h"
#include "tevra/osa/time.h"

namespace tevra::osa {
namespace {

constexpr int64_t kSecondsPerDay = 86400;
constexpr int64_t kDaysPerEra = 146097;   // 400 years, after which the calendar repeats
constexpr int64_t kDaysToEpoch = 719468;  // from 0000-03-01 to 1970-01-01

struct Date {
  int64_t year;
  int month;
  int day;
};

bool IsLeapYear(int64_t year) {
  return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

int DaysInMonth(int64_t year, int month) {
  constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && IsLeapYear(year) ? 29 : kDays[month - 1];
}

// Years are counted from March here, so that a leap day is the last day of its year.
int64_t DaysSinceEpoch(const Date& date) {
  const int64_t year = date.month <= 2 ? date.year - 1 : date.year;
  const int64_t era = (year >= 0 ? year : year - 399) / 400;
  const int64_t year_of_era = year - era * 400;
  const int64_t day_of_year =
      (153 * (date.month + (date.month > 2 ? -3 : 9)) + 2) / 5 + date.day - 1;
  const int64_t day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
  return era * kDaysPerEra + day_of_era - kDaysToEpoch;
}

Date DateOfDay(int64_t days_since_epoch) {
  const int64_t days = days_since_epoch + kDaysToEpoch;
  const int64_t era = (days >= 0 ? days : days - (kDaysPerEra - 1)) / kDaysPerEra;
  const int64_t day_of_era = days - era * kDaysPerEra;
  const int64_t year_of_era =
      (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / (kDaysPerEra - 1)) / 365;
  const int64_t day_of_year =
      day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
  const int64_t shifted_month = (5 * day_of_year + 2) / 153;
  const int day = static_cast<int>(day_of_year - (153 * shifted_month + 2) / 5 + 1);
  const int month = static_cast<int>(shifted_month < 10 ? shifted_month + 3 : shifted_month - 9);
  return {year_of_era + era * 400 + (month <= 2 ? 1 : 0), month, day};
}

// Reads a text from left to right; each step fails on what it does not expect.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : rest_(text) {}

  bool AtEnd() const { return rest_.empty(); }

  bool Take(char wanted) {
    if (rest_.empty() || rest_.front() != wanted) return false;
    rest_.remove_prefix(1);
    return true;
  }

  bool TakeNumber(size_t digits, int low, int high, int& number) {
    if (rest_.size() < digits) return false;
    int value = 0;
    for (const char c : rest_.substr(0, digits)) {
      if (c < '0' || c > '9') return false;
      value = value * 10 + (c - '0');
    }
    if (value < low || value > high) return false;
    rest_.remove_prefix(digits);
    number = value;
    return true;
  }

  // One digit at least; `micros` takes the first six, `nonzero` tells whether any is not '0'.
  bool TakeFraction(int& micros, bool& nonzero) {
    size_t digits = 0;
    int digit = 0;
    micros = 0;
    for (int weight = 100000; TakeNumber(1, 0, 9, digit); weight /= 10, ++digits) {
      micros += digit * weight;
      nonzero = nonzero || digit != 0;
    }
    return digits > 0;
  }

 private:
  std::string_view rest_;
};

bool ScanDate(Scanner& scanner, Date& date) {
  int year = 0;
  if (!scanner.TakeNumber(4, 0, 9999, year) || !scanner.Take('-')) return false;
  if (!scanner.TakeNumber(2, 1, 12, date.month) || !scanner.Take('-')) return false;
  date.year = year;
  return scanner.TakeNumber(2, 1, DaysInMonth(year, date.month), date.day);
}

bool ScanTime(Scanner& scanner, int& seconds_of_day, int& micros) {
  int hour = 0, minute = 0, second = 0;
  if (!scanner.TakeNumber(2, 0, 24, hour) || !scanner.Take(':')) return false;
  if (!scanner.TakeNumber(2, 0, 59, minute) || !scanner.Take(':')) return false;
  if (!scanner.TakeNumber(2, 0, 59, second)) return false;
  bool fraction = false;
  micros = 0;
  if ((scanner.Take('.') || scanner.Take(',')) && !scanner.TakeFraction(micros, fraction)) {
    return false;
  }
  seconds_of_day = hour * 3600 + minute * 60 + second;
  const bool past_midnight = seconds_of_day == kSecondsPerDay && fraction;
  return seconds_of_day <= kSecondsPerDay && !past_midnight;
}

bool ScanZone(Scanner& scanner, int& offset_seconds) {
  offset_seconds = 0;
  if (scanner.AtEnd() || scanner.Take('Z')) return true;
  const bool west = scanner.Take('-');
  if (!west && !scanner.Take('+')) return false;
  int hours = 0, minutes = 0;
  if (!scanner.TakeNumber(2, 0, 23, hours)) return false;
  if (!scanner.AtEnd()) {
    scanner.Take(':');
    if (!scanner.TakeNumber(2, 0, 59, minutes)) return false;
  }
  offset_seconds = (hours * 3600 + minutes * 60) * (west ? -1 : 1);
  return true;
}

}  // namespace

DateTime::DateTime(const std::string& text) {
  Scanner scanner(text);
  Date date = {};
  int seconds_of_day = 0, micros = 0, offset = 0;
  if (!ScanDate(scanner, date) || !scanner.Take('T') ||
      !ScanTime(scanner, seconds_of_day, micros) || !ScanZone(scanner, offset) ||
      !scanner.AtEnd()) {
    throw Exception("not an ISO 8601 date and time: %.64s", text.c_str());
  }
  time_ = TimeStruct(DaysSinceEpoch(date) * kSecondsPerDay + seconds_of_day - offset, micros);
}

std::string DateTime::ToString(int format) const {
  if (format != 0) throw Exception("no date format %d", format);
  int64_t days = time_.seconds / kSecondsPerDay;
  int64_t second = time_.seconds % kSecondsPerDay;
  if (second < 0) {
    second += kSecondsPerDay;
    --days;
  }
  const Date date = DateOfDay(days);
  const char* sign = date.year > 9999 ? "+" : date.year < 0 ? "-" : "";
  char text[64];
  snprintf(text, sizeof(text), "%s%04" PRId64 "-%02d-%02dT%02d:%02d:%02dZ", sign,
           date.year < 0 ? -date.year : date.year, date.month, date.day,
           static_cast<int>(second / 3600), static_cast<int>(second / 60 % 60),
           static_cast<int>(second % 60));
  return text;
}

}  // namespace tevra::osa
