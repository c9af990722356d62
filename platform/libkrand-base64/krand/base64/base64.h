#ifndef KRAND_BASE64_BASE64_H_
#define KRAND_BASE64_BASE64_H_

#include <string>

namespace krand::lib {

// Standard base64 over counted bytes. Decoding is strict and canonical: anything but the one right
// spelling of a value gives the empty string.
class Base64 {
 public:
  static std::string Encode(const std::string& data);
  static std::string Decode(const std::string& text);
};

}  // namespace krand::lib

#endif  // KRAND_BASE64_BASE64_H_
