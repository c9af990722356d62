#include "vigila/server/secret_text.h"

#include <openssl/crypto.h>

#include <cstring>
#include <utility>

namespace vigila::server {

SecretText::SecretText(std::string_view text) : SecretText(text.size()) {
  if (!text.empty()) std::memcpy(data_.get(), text.data(), text.size());
}

SecretText::SecretText(size_t size)
    : data_(std::make_unique<unsigned char[]>(size)), size_(size), capacity_(size) {}

SecretText::SecretText(SecretText&& other) noexcept
    : data_(std::move(other.data_)),
      size_(std::exchange(other.size_, 0)),
      capacity_(std::exchange(other.capacity_, 0)) {}

SecretText& SecretText::operator=(SecretText&& other) noexcept {
  if (this == &other) return *this;
  Wipe();
  data_ = std::move(other.data_);
  size_ = std::exchange(other.size_, 0);
  capacity_ = std::exchange(other.capacity_, 0);
  return *this;
}

SecretText::~SecretText() {
  Wipe();
}

void SecretText::Shorten(size_t size) {
  if (size >= size_) return;
  OPENSSL_cleanse(data_.get() + size, size_ - size);
  size_ = size;
}

void SecretText::Wipe() {
  if (data_ != nullptr) OPENSSL_cleanse(data_.get(), capacity_);
  data_.reset();
  size_ = 0;
  capacity_ = 0;
}

bool SecretText::Equals(std::string_view other) const {
  size_t difference = size_ ^ other.size();
  for (size_t i = 0; i < other.size(); ++i) {
    const unsigned char mine = size_ == 0 ? 0 : data_[i % size_];
    difference |= static_cast<size_t>(mine ^ static_cast<unsigned char>(other[i]));
  }
  return difference == 0;
}

void SecretText::WipeString(std::string& text) {
  text.resize(text.capacity());  // the bytes behind the end are old ones
  OPENSSL_cleanse(text.data(), text.size());
  text.clear();
}

}  // namespace vigila::server
