#include "vigila/server/password_score.h"

#include <pcrecpp.h>

#include <algorithm>
#include <cstdint>

namespace vigila::server {

namespace {

// Contract: a comma is a symbol too, because it stands between the others in the classes.
// A "." matches no line break, so what a pattern asks for must stand in one line.
constexpr char kThreeDigits[] = "(.*[0-9].*[0-9].*[0-9])";
constexpr char kTwoSymbols[] = "(.*[!,@,#,$,%,^,&,*,?,_,~].*[!,@,#,$,%,^,&,*,?,_,~])";
constexpr char kBothCases[] = "(.*[a-z].*[A-Z])|(.*[A-Z].*[a-z])";
constexpr char kDigit[] = "(.*[0-9])";
constexpr char kLetter[] = "(.*[a-zA-Z])";
constexpr char kSymbol[] = "(.*[!,@,#,$,%,^,&,*,?,_,~])";
constexpr char kDigitsOnly[] = "^[0-9]*$";
constexpr char kLettersOnly[] = "^[a-zA-Z]*$";

constexpr int kLongestBlock = 4;

bool Contains(const char* pattern, const std::string& text) {
  return pcrecpp::RE(pattern).PartialMatch(text);
}

bool IsAll(const char* pattern, const std::string& text) {
  return pcrecpp::RE(pattern).FullMatch(text);
}

}  // namespace

int PasswordScore::Of(const std::string& password) {
  const auto length = static_cast<int64_t>(password.size());
  int64_t score = 4 * length;
  for (int block = 1; block <= kLongestBlock; ++block) {
    score += LengthWithoutRepetition(block, password) - length;
  }
  if (Contains(kThreeDigits, password)) score += 5;
  if (Contains(kTwoSymbols, password)) score += 5;
  if (Contains(kBothCases, password)) score += 10;
  if (Contains(kDigit, password) && Contains(kLetter, password)) score += 15;
  if (Contains(kDigit, password) && Contains(kSymbol, password)) score += 15;
  if (Contains(kLetter, password) && Contains(kSymbol, password)) score += 15;
  // The empty password is both, and loses ten points once.
  if (IsAll(kDigitsOnly, password) || IsAll(kLettersOnly, password)) score -= 10;
  return static_cast<int>(std::clamp<int64_t>(score, 0, 100));
}

std::vector<std::string> PasswordScore::Weaknesses(const std::string& password) {
  std::vector<std::string> found;
  const auto note = [&found](bool weak, const char* word) {
    if (weak) found.emplace_back(word);
  };
  note(IsAll(kDigitsOnly, password), "digits-only");
  note(IsAll(kLettersOnly, password), "letters-only");
  note(!Contains(kDigit, password), "no-digit");
  note(!Contains(kLetter, password), "no-letter");
  note(!Contains(kSymbol, password), "no-symbol");
  note(!Contains(kBothCases, password), "one-case");
  bool repeats = false;
  for (int block = 1; block <= kLongestBlock; ++block) {
    repeats =
        repeats || LengthWithoutRepetition(block, password) < static_cast<int>(password.size());
  }
  note(repeats, "repeats");
  return found;
}

int PasswordScore::LengthWithoutRepetition(int block_length, const std::string& text) {
  const size_t length = text.size();
  const auto block = static_cast<size_t>(std::max(block_length, 0));
  if (block == 0) return static_cast<int>(length);
  int kept = 0;
  size_t i = 0;
  while (i < length) {
    // Deliberate: a block that the end of the text cuts short is not a repeated one.
    const bool repeated =
        i + 2 * block <= length && text.compare(i, block, text, i + block, block) == 0;
    if (!repeated) ++kept;
    i += repeated ? block : 1;
  }
  return kept;
}

}  // namespace vigila::server
