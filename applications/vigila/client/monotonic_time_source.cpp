#include "vigila/client/monotonic_time_source.h"

#include <time.h>

namespace vigila::client {

void MonotonicTimeSource::GetTime(tevra::osa::TimeStruct& now) const {
  timespec time;
  clock_gettime(CLOCK_BOOTTIME, &time);
  now.seconds = time.tv_sec;
  now.microseconds = static_cast<int32_t>(time.tv_nsec / 1000);
}

}  // namespace vigila::client
