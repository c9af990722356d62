#include "vigila/server/stored_secrets.h"

#include <algorithm>
#include <exception>
#include <optional>

#include "vigila/server/at_rest_key.h"
#include "vigila/server/passphrase_store.h"
#include "vigila/server/user_map_impl.h"
#include "vigila/server/user_settings.h"

namespace vigila::server {

namespace {

using Texts = std::vector<std::string>;

// The Base64 of one block of the smallest key; no key makes anything shorter.
constexpr size_t kShortestSecret = (AtRestKey::kMinimumBits / 8 + 2) / 3 * 4;

bool MayHoldSecret(const std::string& text) {
  return text.size() >= kShortestSecret;
}

// What cannot be looked into may hold one.
bool RecordMayHoldSecret(const std::string& key) try {
  const std::optional<std::string> json = UserSettings::ReadJson(key);
  return json.has_value() && MayHoldSecret(*json);
} catch (const UserSettings::Malformed&) {
  return true;
}

bool HistoryMayHoldSecret(const std::string& key) try {
  const Texts history = UserSettings::ReadTexts(key);
  return std::any_of(history.begin(), history.end(), MayHoldSecret);
} catch (const UserSettings::Malformed&) {
  return true;
}

// The secret in a record; empty when it is malformed.
template <typename Record>
std::string ReadSecret(const std::string& key, std::string Record::*member) {
  const std::optional<std::string> json = UserSettings::ReadJson(key);
  if (!json.has_value()) return {};
  try {
    return Record(*json).*member;
  } catch (const std::exception&) {
    return {};
  }
}

// None of a record of a wrong type.
Texts SecretsUnder(std::string_view prefix, const std::string& key) try {
  if (prefix == UserSettings::kHistoryPrefix) return UserSettings::ReadTexts(key);
  if (prefix == UserSettings::kPhrasePrefix) return {ReadSecret(key, &Passphrase::phrase)};
  return {ReadSecret(key, &UserMap::Impl::MyUser::password)};
} catch (const UserSettings::Malformed&) {
  return {};
}

}  // namespace

bool StoredSecrets::Any() {
  const auto any = [](std::string_view prefix, bool (*may_hold)(const std::string& key)) {
    const Texts keys = UserSettings::Keys(prefix);
    return std::any_of(keys.begin(), keys.end(), may_hold);
  };
  return any(UserSettings::kUserPrefix, RecordMayHoldSecret) ||
         any(UserSettings::kPhrasePrefix, RecordMayHoldSecret) ||
         any(UserSettings::kHistoryPrefix, HistoryMayHoldSecret);
}

Texts StoredSecrets::Read(size_t limit) {
  Texts secrets;
  for (const std::string_view prefix :
       {UserSettings::kUserPrefix, UserSettings::kPhrasePrefix, UserSettings::kHistoryPrefix}) {
    for (const std::string& key : UserSettings::Keys(prefix)) {
      for (std::string& secret : SecretsUnder(prefix, key)) {
        if (secrets.size() == limit) return secrets;
        if (MayHoldSecret(secret)) secrets.push_back(std::move(secret));
      }
    }
  }
  return secrets;
}

}  // namespace vigila::server
