#ifndef KRAND_CORE_STRING_ARRAY_CODEC_H_
#define KRAND_CORE_STRING_ARRAY_CODEC_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace krand::core {

// A list of texts as one value: the number of texts, then the length and the bytes of each; numbers
// are 32 bits, most significant byte first. One spelling per list.
class StringArrayCodec {
 public:
  // Throws std::length_error when a number does not fit.
  static std::string Encode(const std::vector<std::string>& texts);
  // Nothing when the bytes are not exactly one encoded list.
  static std::optional<std::vector<std::string>> Decode(std::string_view bytes);
};

}  // namespace krand::core

#endif  // KRAND_CORE_STRING_ARRAY_CODEC_H_
