#include "vigila-gateway/ops/json_text.h"

#include <cstdio>

#include "tevra/core/utf8.h"

namespace vigila::gateway {

std::string JsonText(std::string_view text) {
  std::string quoted = "\"";
  while (!text.empty()) {
    const size_t length = tevra::core::Utf8SequenceLength(text);
    const char c = text.front();
    if (length == 0) {
      quoted.append("\\ufffd");
    } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      char escape[8];
      std::snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned>(c));
      quoted.append(escape);
    } else {
      if (c == '"' || c == '\\') quoted.push_back('\\');
      quoted.append(text.substr(0, length));
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return quoted + "\"";
}

}  // namespace vigila::gateway
