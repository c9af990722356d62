#include "krand/base64/base64.h"

#include "utilc/base64.h"

namespace krand::lib {

std::string Base64::Encode(const std::string& data) {
  std::string text(base64_encode_len(data.size()), '\0');
  text.resize(base64_encode(data.data(), data.size(), text.data(), text.size()));
  return text;
}

std::string Base64::Decode(const std::string& text) {
  std::string data(text.size(), '\0');
  data.resize(base64_decode(text.data(), text.size(), data.data(), data.size()));
  return data;
}

}  // namespace krand::lib
