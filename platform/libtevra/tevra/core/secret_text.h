#ifndef TEVRA_CORE_SECRET_TEXT_H_
#define TEVRA_CORE_SECRET_TEXT_H_

#include <cstddef>
#include <string>
#include <string_view>

namespace tevra::core {

// Overwrites all memory of a text, also what an earlier, longer value left behind its end, and
// empties it.
void Wipe(std::string& text);

// Wipes a borrowed text at the end of a scope, however the scope ends; for secrets that an
// interface wants as std::string.
class ScopedWipe final {
 public:
  explicit ScopedWipe(std::string& text) : text_(text) {}
  ~ScopedWipe() { Wipe(text_); }
  ScopedWipe(const ScopedWipe&) = delete;
  ScopedWipe& operator=(const ScopedWipe&) = delete;

 private:
  std::string& text_;
};

// Counted bytes that leave no trace: all memory is overwritten at destruction and assignment, and
// where the text was when it moves. Moves only, so that there is one copy. Not synchronised.
class SecretText final {
 public:
  SecretText() = default;
  // Wipes the text it takes over.
  explicit SecretText(std::string&& text);
  // The text it copies stays the caller's to wipe.
  explicit SecretText(const std::string& text) : text_(text) {}
  // `size` zero bytes.
  explicit SecretText(size_t size) : text_(size, '\0') {}
  SecretText(SecretText&& other) noexcept;
  SecretText& operator=(SecretText&& other) noexcept;
  ~SecretText() { Wipe(); }

  unsigned char* Data() { return reinterpret_cast<unsigned char*>(text_.data()); }
  const unsigned char* Data() const { return reinterpret_cast<const unsigned char*>(text_.data()); }
  size_t Size() const { return text_.size(); }
  bool Empty() const { return text_.empty(); }
  const std::string& Text() const { return text_; }
  std::string_view View() const { return text_; }
  // Cuts to the first `size` bytes; the others are overwritten.
  void Shorten(size_t size);
  void Wipe() { core::Wipe(text_); }

 private:
  std::string text_;
};

// Whether two texts are the same, byte for byte and with lengths. How long that takes depends on
// the length of `given` alone: a caller who tries values learns nothing of `secret` from the time.
bool EqualInConstantTime(std::string_view secret, std::string_view given);

}  // namespace tevra::core

#endif  // TEVRA_CORE_SECRET_TEXT_H_
