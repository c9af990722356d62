#ifndef VIGILA_SERVER_WIPE_ON_EXIT_H_
#define VIGILA_SERVER_WIPE_ON_EXIT_H_

#include <string>

#include "vigila/server/secret_text.h"

namespace vigila::server {

// Overwrites a text at the end of its scope, for secrets that an interface wants as std::string.
class WipeOnExit final {
 public:
  explicit WipeOnExit(std::string& text) : text_(text) {}
  ~WipeOnExit() { SecretText::WipeString(text_); }
  WipeOnExit(const WipeOnExit&) = delete;
  WipeOnExit& operator=(const WipeOnExit&) = delete;

 private:
  std::string& text_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_WIPE_ON_EXIT_H_
