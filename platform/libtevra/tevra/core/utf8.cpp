#include "tevra/core/utf8.h"

#include <algorithm>

namespace tevra::core {
namespace {

struct Form {
  unsigned char first_low, first_high;    // range of the first byte
  unsigned char second_low, second_high;  // range of the second; the others are 80 to bf
  size_t length;
};

constexpr Form kForms[] = {
    {0xc2, 0xdf, 0x80, 0xbf, 2}, {0xe0, 0xe0, 0xa0, 0xbf, 3}, {0xe1, 0xec, 0x80, 0xbf, 3},
    {0xed, 0xed, 0x80, 0x9f, 3}, {0xee, 0xef, 0x80, 0xbf, 3}, {0xf0, 0xf0, 0x90, 0xbf, 4},
    {0xf1, 0xf3, 0x80, 0xbf, 4}, {0xf4, 0xf4, 0x80, 0x8f, 4},
};

bool IsIn(char c, unsigned char low, unsigned char high) {
  const auto byte = static_cast<unsigned char>(c);
  return byte >= low && byte <= high;
}

bool Has(std::string_view text, const Form& form) {
  if (text.size() < form.length || !IsIn(text[0], form.first_low, form.first_high) ||
      !IsIn(text[1], form.second_low, form.second_high)) {
    return false;
  }
  for (size_t i = 2; i < form.length; ++i) {
    if (!IsIn(text[i], 0x80, 0xbf)) return false;
  }
  return true;
}

}  // namespace

size_t Utf8SequenceLength(std::string_view text) {
  if (text.empty()) return 0;
  if (IsIn(text[0], 0, 0x7f)) return 1;
  for (const Form& form : kForms) {
    if (Has(text, form)) return form.length;
  }
  return 0;
}

bool IsUtf8(std::string_view text) {
  while (!text.empty()) {
    const size_t length = Utf8SequenceLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

uint32_t Utf8CodePoint(std::string_view sequence) {
  uint32_t code = static_cast<unsigned char>(sequence[0]);
  if (sequence.size() > 1) code &= 0x7fU >> sequence.size();
  for (const char c : sequence.substr(1))
    code = code << 6 | (static_cast<unsigned char>(c) & 0x3fU);
  return code;
}

std::string ValidUtf8(std::string_view text) {
  std::string valid;
  valid.reserve(text.size());
  while (!text.empty()) {
    const size_t length = Utf8SequenceLength(text);
    if (length == 0 || text.front() == '\0') {
      valid += '?';
    } else {
      valid += text.substr(0, length);
    }
    text.remove_prefix(std::max<size_t>(length, 1));
  }
  return valid;
}

}  // namespace tevra::core
