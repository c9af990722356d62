#include <pcrecpp.h>

#include <algorithm>

#include "tevra/osa/exception.h"
#include "vigila/server/user_map_impl.h"
#include "vigila/server/user_settings.h"

namespace vigila::server {

namespace {

using tevra::core::SecretText;

// Deliberate: the commas are symbols too; they stand between all the others. "." takes no line
// break, so what a pattern asks for must stand in one line.
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

std::string HistoryKey(const std::string& name) {
  return UserSettings::Key(UserSettings::kHistoryPrefix, name);
}

// Deliberate: a history that cannot be read is taken for an empty one. It left its Error line, and
// an account must not be stuck with its password because of it.
std::vector<std::string> ReadHistory(const std::string& name) {
  try {
    return UserSettings::ReadTexts(HistoryKey(name));
  } catch (const tevra::osa::Exception&) {
    return {};
  }
}

}  // namespace

int UserMap::Impl::CalculatePasswordScore(const std::string& password) const {
  const auto length = static_cast<int64_t>(password.size());
  int64_t score = 4 * length;
  for (int block = 1; block <= kLongestBlock; ++block) {
    score += CheckRepetition(block, password) - length;
  }
  if (Contains(kThreeDigits, password)) score += 5;
  if (Contains(kTwoSymbols, password)) score += 5;
  if (Contains(kBothCases, password)) score += 10;
  if (Contains(kDigit, password) && Contains(kLetter, password)) score += 15;
  if (Contains(kDigit, password) && Contains(kSymbol, password)) score += 15;
  if (Contains(kLetter, password) && Contains(kSymbol, password)) score += 15;
  // Deliberate: the empty password is both and pays once.
  if (IsAll(kDigitsOnly, password) || IsAll(kLettersOnly, password)) score -= 10;
  return static_cast<int>(std::clamp<int64_t>(score, 0, 100));
}

int UserMap::Impl::CheckRepetition(int block_length, const std::string& text) const {
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

bool UserMap::Impl::MatchOldPassword(const std::string& name, const std::string& proposed) const {
  for (const std::string& stored : ReadHistory(name)) {
    const std::optional<SecretText> password = Decrypt(stored);
    if (password.has_value() && tevra::core::EqualInConstantTime(password->View(), proposed))
      return true;
  }
  return false;
}

void UserMap::Impl::UpdateOldPasswords(const std::string& name,
                                       const std::string& stored_password) const {
  std::vector<std::string> history = ReadHistory(name);
  history.push_back(stored_password);
  if (history.size() > old_passwords_kept_) {
    history.erase(history.begin(), history.end() - old_passwords_kept_);
  }
  UserSettings::WriteTexts(HistoryKey(name), history);
}

}  // namespace vigila::server
