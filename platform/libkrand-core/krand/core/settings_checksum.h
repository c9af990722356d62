#ifndef KRAND_CORE_SETTINGS_CHECKSUM_H_
#define KRAND_CORE_SETTINGS_CHECKSUM_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace krand::core {

// 128 bits that tell damaged settings from sound ones. Against bits that flash loses, not against
// people: whoever may write the store can compute it too.
class SettingsChecksum final {
 public:
  static constexpr size_t kSize = 16;

  SettingsChecksum() = default;  // of nothing, and of an empty set

  // Of one record. The key is part of it: a value is not believed under another key.
  static SettingsChecksum OfRecord(std::string_view key, int64_t type, std::string_view value);
  static SettingsChecksum OfBytes(std::string_view bytes);
  // Nothing when the bytes are not as many as Bytes gives.
  static std::optional<SettingsChecksum> FromBytes(std::string_view bytes);

  std::string Bytes() const;
  // Two decimal numbers.
  std::string Text() const;

  // The checksum of a set is the sum of its members' in any order, so that a record comes and goes
  // without a look at the others.
  SettingsChecksum& operator+=(const SettingsChecksum& other);
  SettingsChecksum& operator-=(const SettingsChecksum& other);
  bool operator==(const SettingsChecksum&) const = default;

 private:
  SettingsChecksum(uint64_t low, uint64_t high) : low_(low), high_(high) {}

  uint64_t low_ = 0;
  uint64_t high_ = 0;
};

}  // namespace krand::core

#endif  // KRAND_CORE_SETTINGS_CHECKSUM_H_
