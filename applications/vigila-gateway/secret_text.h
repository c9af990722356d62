#ifndef VIGILA_GATEWAY_SECRET_TEXT_H_
#define VIGILA_GATEWAY_SECRET_TEXT_H_

#include <openssl/crypto.h>

#include <string>
#include <utility>

namespace vigila::gateway {

// Overwrites all memory of a text and empties it.
inline void WipeText(std::string& text) {
  text.resize(text.capacity());
  OPENSSL_cleanse(text.data(), text.size());
  text.clear();
}

// A text that is wiped when it goes, and where it was when it moves.
class SecretText final {
 public:
  SecretText() = default;
  explicit SecretText(std::string&& text) : text_(std::move(text)) { WipeText(text); }
  ~SecretText() { WipeText(text_); }
  SecretText(SecretText&& other) noexcept : text_(std::move(other.text_)) { WipeText(other.text_); }
  SecretText& operator=(SecretText&& other) noexcept {
    if (this == &other) return *this;
    WipeText(text_);
    text_ = std::move(other.text_);
    WipeText(other.text_);
    return *this;
  }

  const std::string& Text() const { return text_; }

 private:
  std::string text_;
};

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_SECRET_TEXT_H_
