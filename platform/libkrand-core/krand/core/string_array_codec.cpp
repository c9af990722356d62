#include "krand/core/string_array_codec.h"

#include <cstdint>
#include <limits>
#include <stdexcept>

namespace krand::core {

namespace {

constexpr size_t kNumberSize = 4;

void AppendNumber(std::string& bytes, size_t number) {
  if (number > std::numeric_limits<uint32_t>::max()) {
    throw std::length_error("a settings array is too long");
  }
  for (int shift = 24; shift >= 0; shift -= 8) {
    bytes.push_back(static_cast<char>((number >> shift) & 0xff));
  }
}

std::optional<size_t> TakeNumber(std::string_view& bytes) {
  if (bytes.size() < kNumberSize) {
    return std::nullopt;
  }
  size_t number = 0;
  for (size_t i = 0; i < kNumberSize; ++i) {
    number = (number << 8) | static_cast<unsigned char>(bytes[i]);
  }
  bytes.remove_prefix(kNumberSize);
  return number;
}

}  // namespace

std::string StringArrayCodec::Encode(const std::vector<std::string>& texts) {
  std::string bytes;
  AppendNumber(bytes, texts.size());
  for (const std::string& text : texts) {
    AppendNumber(bytes, text.size());
    bytes += text;
  }
  return bytes;
}

std::optional<std::vector<std::string>> StringArrayCodec::Decode(std::string_view bytes) {
  const std::optional<size_t> count = TakeNumber(bytes);
  // A count is believed only as far as the bytes could hold that many lengths.
  if (!count || *count > bytes.size() / kNumberSize) {
    return std::nullopt;
  }
  std::vector<std::string> texts;
  texts.reserve(*count);
  for (size_t i = 0; i < *count; ++i) {
    const std::optional<size_t> length = TakeNumber(bytes);
    if (!length || *length > bytes.size()) {
      return std::nullopt;
    }
    texts.emplace_back(bytes.substr(0, *length));
    bytes.remove_prefix(*length);
  }
  if (!bytes.empty()) {
    return std::nullopt;
  }
  return texts;
}

}  // namespace krand::core
