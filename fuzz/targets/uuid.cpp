// Whatever reads as an identifier prints as 36 characters that read as the same identifier.
#include "utilc/uuid.h"

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  _uuid_t uuid;
  if (uuid_scan(text.c_str(), &uuid) != 0) return 0;
  char printed[37];
  uuid_sprint(&uuid, printed);
  _uuid_t again;
  if (uuid_scan(printed, &again) != 0 || uuid_compare(&uuid, &again) != 0) std::abort();
  return 0;
}
