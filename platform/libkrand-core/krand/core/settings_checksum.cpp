#include "krand/core/settings_checksum.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace krand::core {

namespace {

void AppendNumber(std::string& bytes, uint64_t number) {
  for (int shift = 56; shift >= 0; shift -= 8) {
    bytes.push_back(static_cast<char>((number >> shift) & 0xff));
  }
}

uint64_t NumberAt(std::string_view bytes, size_t place) {
  uint64_t number = 0;
  for (size_t i = place; i < place + 8; ++i) {
    number = (number << 8) | static_cast<unsigned char>(bytes[i]);
  }
  return number;
}

}  // namespace

SettingsChecksum SettingsChecksum::OfBytes(std::string_view bytes) {
  const XXH128_hash_t hash = XXH3_128bits(bytes.data(), bytes.size());
  return {hash.low64, hash.high64};
}

SettingsChecksum SettingsChecksum::OfRecord(std::string_view key, int64_t type,
                                            std::string_view value) {
  std::string bytes;
  bytes.reserve(16 + key.size() + value.size());
  AppendNumber(bytes, key.size());
  AppendNumber(bytes, static_cast<uint64_t>(type));
  bytes.append(key).append(value);
  return OfBytes(bytes);
}

std::optional<SettingsChecksum> SettingsChecksum::FromBytes(std::string_view bytes) {
  if (bytes.size() != kSize) return std::nullopt;
  return SettingsChecksum(NumberAt(bytes, 8), NumberAt(bytes, 0));
}

std::string SettingsChecksum::Bytes() const {
  std::string bytes;
  AppendNumber(bytes, high_);
  AppendNumber(bytes, low_);
  return bytes;
}

std::string SettingsChecksum::Text() const {
  return std::to_string(high_) + " " + std::to_string(low_);
}

SettingsChecksum& SettingsChecksum::operator+=(const SettingsChecksum& other) {
  low_ += other.low_;
  high_ += other.high_;
  return *this;
}

SettingsChecksum& SettingsChecksum::operator-=(const SettingsChecksum& other) {
  low_ -= other.low_;
  high_ -= other.high_;
  return *this;
}

}  // namespace krand::core
