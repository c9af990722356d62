#ifndef VIGILA_SERVER_SECRET_TEXT_H_
#define VIGILA_SERVER_SECRET_TEXT_H_

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace vigila::server {

// Counted bytes that leave no trace: the memory is overwritten at destruction, assignment and move.
// Moves only, so that there is one copy. Not synchronised.
class SecretText {
 public:
  SecretText() = default;
  explicit SecretText(std::string_view text);
  // `size` zero bytes.
  explicit SecretText(size_t size);
  SecretText(SecretText&& other) noexcept;
  SecretText& operator=(SecretText&& other) noexcept;
  ~SecretText();

  unsigned char* Data() { return data_.get(); }
  const unsigned char* Data() const { return data_.get(); }
  size_t Size() const { return size_; }
  bool Empty() const { return size_ == 0; }
  std::string_view View() const { return {reinterpret_cast<const char*>(data_.get()), size_}; }
  // Cuts to the first `size` bytes; the others are overwritten.
  void Shorten(size_t size);
  void Wipe();

  // Byte for byte and with lengths; the time depends on the length of `other` alone.
  bool Equals(std::string_view other) const;

  // Overwrites the bytes of a text that had to be a std::string and empties it.
  static void WipeString(std::string& text);

 private:
  std::unique_ptr<unsigned char[]> data_;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_SECRET_TEXT_H_
