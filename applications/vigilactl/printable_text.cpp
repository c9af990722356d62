#include "vigilactl/printable_text.h"

#include <algorithm>
#include <cstdint>

#include "tevra/core/hexadecimal.h"
#include "tevra/core/utf8.h"

namespace vigilactl {
namespace {

using tevra::core::Utf8SequenceLength;

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
  for (const char byte : bytes) {
    out += prefix;
    tevra::core::AppendHexadecimal(byte, out);
  }
}

}  // namespace

std::string Printable(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const size_t length = Utf8SequenceLength(text);
    const std::string_view next = text.substr(0, std::max<size_t>(length, 1));
    if (length == 0 || SteersTheTerminal(tevra::core::Utf8CodePoint(next))) {
      AppendEscaped(next, "\\x", out);
    } else {
      out += next;
    }
    text.remove_prefix(next.size());
  }
  return out;
}

std::string JsonWithoutStrayBytes(std::string_view document) {
  std::string out;
  while (!document.empty()) {
    const size_t length = Utf8SequenceLength(document);
    const std::string_view next = document.substr(0, std::max<size_t>(length, 1));
    if (length == 0) {
      AppendEscaped(next, "\\\\x", out);
    } else {
      out += next;
    }
    document.remove_prefix(next.size());
  }
  return out;
}

size_t DisplayWidth(std::string_view printable) {
  return static_cast<size_t>(std::count_if(printable.begin(), printable.end(), [](char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0u) != 0x80u;
  }));
}

}  // namespace vigilactl
