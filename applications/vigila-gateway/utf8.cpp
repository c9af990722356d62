#include "vigila-gateway/utf8.h"

namespace vigila::gateway {
namespace {

struct SequenceForm {
  unsigned char first_low, first_high;    // range of the first byte
  unsigned char second_low, second_high;  // range of the second; the others are 80..bf
  size_t length;
};

constexpr SequenceForm kForms[] = {
    {0xc2, 0xdf, 0x80, 0xbf, 2}, {0xe0, 0xe0, 0xa0, 0xbf, 3}, {0xe1, 0xec, 0x80, 0xbf, 3},
    {0xed, 0xed, 0x80, 0x9f, 3}, {0xee, 0xef, 0x80, 0xbf, 3}, {0xf0, 0xf0, 0x90, 0xbf, 4},
    {0xf1, 0xf3, 0x80, 0xbf, 4}, {0xf4, 0xf4, 0x80, 0x8f, 4},
};

bool Matches(const SequenceForm& form, std::string_view text) {
  const auto byte = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
  if (byte(0) < form.first_low || byte(0) > form.first_high || text.size() < form.length) {
    return false;
  }
  if (byte(1) < form.second_low || byte(1) > form.second_high) return false;
  for (size_t i = 2; i < form.length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return false;
  }
  return true;
}

}  // namespace

size_t Utf8SequenceLength(std::string_view text) {
  if (text.empty()) return 0;
  if (static_cast<unsigned char>(text[0]) < 0x80) return 1;
  for (const SequenceForm& form : kForms) {
    if (Matches(form, text)) return form.length;
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

}  // namespace vigila::gateway
