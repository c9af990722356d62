#include "vigilactl/printable_text.h"

#include <algorithm>
#include <cstdint>

namespace vigilactl {
namespace {

struct Character {
  size_t length = 0;  // bytes; 0 when the text does not begin with a UTF-8 character
  uint32_t code = 0;
};

bool IsContinuation(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0u) == 0x80u;
}

Character FirstCharacter(std::string_view text) {
  const uint32_t lead = static_cast<unsigned char>(text[0]);
  if (lead < 0x80) return {1, lead};
  const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < length) return {};
  uint32_t code = lead & (0x7Fu >> length);
  for (size_t i = 1; i < length; ++i) {
    if (!IsContinuation(text[i])) return {};
    code = (code << 6) | (static_cast<unsigned char>(text[i]) & 0x3Fu);
  }
  static constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
  if (code < kSmallest[length] || code > 0x10FFFF || surrogate) return {};
  return {length, code};
}

bool SteersTheTerminal(uint32_t code) {
  struct Range {
    uint32_t first, last;
  };
  static constexpr Range kRanges[] = {
      {0x00, 0x1F},     {0x7F, 0x9F},     {0xAD, 0xAD},     {0x61C, 0x61C},   {0x200B, 0x200F},
      {0x2028, 0x202E}, {0x2060, 0x206F}, {0xFEFF, 0xFEFF}, {0xFFF9, 0xFFFB}, {0xE0000, 0xE0FFF}};
  return std::any_of(std::begin(kRanges), std::end(kRanges),
                     [code](const Range& r) { return code >= r.first && code <= r.last; });
}

void AppendEscaped(std::string_view bytes, const char* prefix, std::string& out) {
  static constexpr char kDigits[] = "0123456789abcdef";
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    out += prefix;
    out += kDigits[value >> 4];
    out += kDigits[value & 0xF];
  }
}

}  // namespace

bool IsUtf8(std::string_view text) {
  while (!text.empty()) {
    const Character next = FirstCharacter(text);
    if (next.length == 0) return false;
    text.remove_prefix(next.length);
  }
  return true;
}

std::string Printable(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const Character next = FirstCharacter(text);
    const size_t length = std::max<size_t>(next.length, 1);
    if (next.length == 0 || SteersTheTerminal(next.code)) {
      AppendEscaped(text.substr(0, length), "\\x", out);
    } else {
      out += text.substr(0, length);
    }
    text.remove_prefix(length);
  }
  return out;
}

std::string JsonWithoutStrayBytes(std::string_view document) {
  std::string out;
  while (!document.empty()) {
    const Character next = FirstCharacter(document);
    if (next.length == 0) {
      AppendEscaped(document.substr(0, 1), "\\\\x", out);
      document.remove_prefix(1);
    } else {
      out += document.substr(0, next.length);
      document.remove_prefix(next.length);
    }
  }
  return out;
}

size_t DisplayWidth(std::string_view printable) {
  return static_cast<size_t>(std::count_if(printable.begin(), printable.end(),
                                           [](char byte) { return !IsContinuation(byte); }));
}

}  // namespace vigilactl
