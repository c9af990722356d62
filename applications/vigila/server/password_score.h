#ifndef VIGILA_SERVER_PASSWORD_SCORE_H_
#define VIGILA_SERVER_PASSWORD_SCORE_H_

#include <string>
#include <vector>

namespace vigila::server {

// How hard a password is to guess, from 0 to 100, by its length, its repetitions and its kinds of
// characters.
class PasswordScore final {
 public:
  static int Of(const std::string& password);
  // What costs the password points, in words for programs: "digits-only", "letters-only",
  // "no-digit", "no-letter", "no-symbol", "one-case", "repeats".
  static std::vector<std::string> Weaknesses(const std::string& password);
  // The length of `text` without the blocks of `block_length` bytes that the next block repeats.
  static int LengthWithoutRepetition(int block_length, const std::string& text);
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_PASSWORD_SCORE_H_
