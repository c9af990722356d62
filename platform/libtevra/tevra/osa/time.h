#ifndef TEVRA_OSA_TIME_H_
#define TEVRA_OSA_TIME_H_

#include <compare>
#include <cstdint>
#include <string>

namespace tevra::osa {

// A point in time: whole seconds since the epoch and microseconds within the second (0..999999).
struct TimeStruct {
  int64_t seconds = 0;
  int32_t microseconds = 0;

  TimeStruct() = default;
  TimeStruct(int64_t whole_seconds, int32_t micros)
      : seconds(whole_seconds), microseconds(micros) {}
  explicit TimeStruct(bool now);  // true: the wall clock's now; false: zero

  // Keeps microseconds in range, also for negative values; stops at the ends of what it can hold.
  TimeStruct& operator+=(int64_t micros);
  auto operator<=>(const TimeStruct&) const = default;
};

// A length of time, signed, in microseconds.
class TimeSpan {
 public:
  TimeSpan() = default;
  static TimeSpan FromSeconds(double seconds);  // to the nearest; what is too long, the longest
  static TimeSpan FromMicroseconds(int64_t microseconds);

  int64_t WholeSeconds() const { return microseconds_ / 1000000; }  // truncates towards zero
  int64_t AsMicroseconds() const { return microseconds_; }
  auto operator<=>(const TimeSpan&) const = default;

 private:
  int64_t microseconds_ = 0;
};

class ITimeSource {
 public:
  virtual ~ITimeSource() = default;
  virtual void GetTime(TimeStruct& now) const = 0;
};

// The wall clock. Any thread.
class SystemTimeSource : public ITimeSource {
 public:
  void GetTime(TimeStruct& now) const override;
};

// A calendar date and time in UTC.
class DateTime {
 public:
  explicit DateTime(const TimeStruct& time) : time_(time) {}
  // ISO 8601 date and time: "2026-11-21T02:01:00", any number of fraction digits (those past
  // microseconds are cut) behind "." or ",", then "Z", an offset ("+02:00", "-0530", "+02", to
  // 23:59) or nothing (UTC). 24:00:00 is the end of its day; a second 60 does not exist here, as
  // the system clock never shows one. Throws Exception on anything else, impossible dates included.
  explicit DateTime(const std::string& text);

  TimeStruct ToTimeStruct() const { return time_; }
  // Format 0: ISO 8601 in UTC, "2026-11-21T02:01:00Z", the fraction cut and years outside 0 to 9999
  // with a sign; other formats throw.
  std::string ToString(int format) const;

 private:
  TimeStruct time_;
};

}  // namespace tevra::osa

#endif  // TEVRA_OSA_TIME_H_
