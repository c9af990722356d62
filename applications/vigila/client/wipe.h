#ifndef VIGILA_CLIENT_WIPE_H_
#define VIGILA_CLIENT_WIPE_H_

#include <string>

namespace vigila::client {

// Overwrites all memory of a text and empties it, so that a password does not outlive its use.
void Wipe(std::string& text);

// Wipes a borrowed text at the end of a scope, however the scope ends.
class ScopedWipe final {
 public:
  explicit ScopedWipe(std::string& text) : text_(text) {}
  ~ScopedWipe() { Wipe(text_); }
  ScopedWipe(const ScopedWipe&) = delete;
  ScopedWipe& operator=(const ScopedWipe&) = delete;

 private:
  std::string& text_;
};

}  // namespace vigila::client

#endif  // VIGILA_CLIENT_WIPE_H_
