#include "tevra/core/secret_text.h"

#include <string.h>

#include <utility>

namespace tevra::core {

void Wipe(std::string& text) {
  text.resize(text.capacity());
  explicit_bzero(text.data(), text.size());
  text.clear();
}

// A short text lies in the string itself, so a move copies it and the place it left is wiped.
SecretText::SecretText(std::string&& text) : text_(std::move(text)) {
  core::Wipe(text);
}

SecretText::SecretText(SecretText&& other) noexcept : text_(std::move(other.text_)) {
  other.Wipe();
}

SecretText& SecretText::operator=(SecretText&& other) noexcept {
  if (this == &other) return *this;
  Wipe();
  text_ = std::move(other.text_);
  other.Wipe();
  return *this;
}

void SecretText::Shorten(size_t size) {
  if (size >= text_.size()) return;
  explicit_bzero(text_.data() + size, text_.size() - size);
  text_.resize(size);
}

bool EqualInConstantTime(std::string_view secret, std::string_view given) {
  // Volatile, so that the compiler cannot end the loop at the first difference.
  volatile size_t difference = secret.size() ^ given.size();
  for (size_t i = 0; i < given.size(); ++i) {
    const char expected = secret.empty() ? '\0' : secret[i % secret.size()];
    difference = difference | static_cast<unsigned char>(expected ^ given[i]);
  }
  return difference == 0;
}

}  // namespace tevra::core
