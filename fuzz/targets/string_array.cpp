// One spelling per list: whatever decodes encodes back to the very same bytes.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "krand/core/string_array_codec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const auto texts = krand::core::StringArrayCodec::Decode(bytes);
  if (texts && krand::core::StringArrayCodec::Encode(*texts) != bytes) std::abort();
  return 0;
}
