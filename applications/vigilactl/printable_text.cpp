#include "vigilactl/printable_text.h"

#include <locale.h>
#include <wchar.h>

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
  // The widths of the C library are those of a locale, and the one that the program was started in
  // may know no characters but ASCII.
  static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  const locale_t before = uselocale(utf8);
  size_t width = 0;
  while (!printable.empty()) {
    const size_t length = std::max<size_t>(Utf8SequenceLength(printable), 1);
    const auto code = static_cast<wchar_t>(tevra::core::Utf8CodePoint(printable.substr(0, length)));
    const int columns = wcwidth(code);
    width += columns < 0 ? 1u : static_cast<size_t>(columns);
    printable.remove_prefix(length);
  }
  uselocale(before);
  return width;
}

}  // namespace vigilactl
