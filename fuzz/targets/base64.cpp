// Decoding is canonical: whatever decodes to something encodes back to the very same text.
#include "utilc/base64.h"

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string bytes(size, '\0');
  bytes.resize(base64_decode(reinterpret_cast<const char*>(data), size, bytes.data(), size));
  if (bytes.empty()) return 0;
  std::string text(base64_encode_len(bytes.size()), '\0');
  text.resize(base64_encode(bytes.data(), bytes.size(), text.data(), text.size()));
  if (text != std::string(reinterpret_cast<const char*>(data), size)) std::abort();
  return 0;
}
