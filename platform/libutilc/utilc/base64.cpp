#include "utilc/base64.h"

#include <array>
#include <cstdint>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr int8_t kNoDigit = -1;

constexpr std::array<int8_t, 256> MakeDigitTable() {
  std::array<int8_t, 256> table{};
  for (int8_t& digit : table) digit = kNoDigit;
  for (size_t i = 0; i < 64; ++i) {
    table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<int8_t>(i);
  }
  return table;
}

constexpr std::array<int8_t, 256> kDigits = MakeDigitTable();

int8_t Digit(char c) {
  return kDigits[static_cast<unsigned char>(c)];
}

size_t PaddingOf(const char* text, size_t length) {
  if (text[length - 1] != '=') return 0;
  return text[length - 2] == '=' ? 2 : 1;
}

// Bits of the last digit that no byte uses; they must be zero, or one value had many spellings.
bool UnusedBitsAreZero(char last_digit, size_t padding) {
  const int unused = padding == 2 ? 0x0f : padding == 1 ? 0x03 : 0;
  return (Digit(last_digit) & unused) == 0;
}

bool IsCanonical(const char* text, size_t length, size_t padding) {
  const size_t digits = length - padding;
  for (size_t i = 0; i < digits; ++i) {
    if (Digit(text[i]) == kNoDigit) return false;
  }
  return UnusedBitsAreZero(text[digits - 1], padding);
}

}  // namespace

size_t base64_encode_len(size_t length) {
  const size_t groups = length / 3 + (length % 3 != 0 ? 1 : 0);
  return groups > SIZE_MAX / 4 ? SIZE_MAX : groups * 4;
}

size_t base64_encode(const void* data, size_t length, char* text, size_t capacity) {
  const size_t needed = base64_encode_len(length);
  if (needed > capacity) return 0;

  const unsigned char* bytes = static_cast<const unsigned char*>(data);
  char* out = text;
  for (size_t i = 0; i < length; i += 3) {
    const size_t left = length - i;
    const uint32_t group = static_cast<uint32_t>(bytes[i]) << 16 |
                           static_cast<uint32_t>(left > 1 ? bytes[i + 1] : 0) << 8 |
                           static_cast<uint32_t>(left > 2 ? bytes[i + 2] : 0);
    *out++ = kAlphabet[group >> 18];
    *out++ = kAlphabet[group >> 12 & 63];
    *out++ = left > 1 ? kAlphabet[group >> 6 & 63] : '=';
    *out++ = left > 2 ? kAlphabet[group & 63] : '=';
  }
  return needed;
}

size_t base64_decode(const char* text, size_t length, void* data, size_t capacity) {
  if (length == 0 || length % 4 != 0) return 0;
  const size_t padding = PaddingOf(text, length);
  const size_t size = length / 4 * 3 - padding;
  if (size > capacity || !IsCanonical(text, length, padding)) return 0;

  unsigned char* bytes = static_cast<unsigned char*>(data);
  size_t written = 0;
  for (size_t i = 0; i < length; i += 4) {
    uint32_t group = 0;
    for (size_t j = i; j < i + 4; ++j) {
      group = group << 6 | (text[j] == '=' ? 0U : static_cast<uint32_t>(Digit(text[j])));
    }
    for (int shift = 16; shift >= 0 && written < size; shift -= 8) {
      bytes[written++] = static_cast<unsigned char>(group >> shift);
    }
  }
  return size;
}
