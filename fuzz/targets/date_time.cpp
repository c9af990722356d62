// Whatever reads as a date and time prints as one that reads as the same second.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "tevra/osa/exception.h"
#include "tevra/osa/time.h"

using tevra::osa::DateTime;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  try {
    const DateTime parsed(text);
    const DateTime again(parsed.ToString(0));
    if (again.ToTimeStruct().seconds != parsed.ToTimeStruct().seconds) std::abort();
  } catch (const tevra::osa::Exception&) {
  }
  return 0;
}
