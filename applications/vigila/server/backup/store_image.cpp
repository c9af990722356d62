#include "vigila/server/backup/store_image.h"

#include <openssl/evp.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string_view>

#include "tevra/osa/exception.h"
#include "vigila/server/user_settings.h"

namespace vigila::server {
namespace {

class Digest final {
 public:
  Digest() : context_(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
    Check(context_ != nullptr && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1);
  }
  // Each with its length, so that no two lists of texts are the same bytes.
  Digest& Add(std::string_view text) {
    const size_t length = text.size();
    Check(EVP_DigestUpdate(context_.get(), &length, sizeof(length)) == 1 &&
          EVP_DigestUpdate(context_.get(), text.data(), length) == 1);
    return *this;
  }
  std::string Result() {
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    Check(EVP_DigestFinal_ex(context_.get(), bytes, &length) == 1);
    return std::string(bytes, bytes + length);
  }

 private:
  static void Check(bool done) {
    if (!done) throw tevra::osa::Exception("the accounts cannot be compared: no SHA-256");
  }

  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context_;
};

std::vector<std::string> ReadHistory(const std::string& key) {
  try {
    return UserSettings::ReadTexts(key);
  } catch (const UserSettings::Malformed&) {
    return {};
  }
}

}  // namespace

StoreImage StoreImage::Read() {
  StoreImage image;
  for (const std::string& key : UserSettings::Keys(UserSettings::kUserPrefix)) {
    std::optional<UserMap::Impl::MyUser> user =
        UserSettings::ReadRecord<UserMap::Impl::MyUser>(key);
    if (user) image.accounts[key.substr(UserSettings::kUserPrefix.size())] = *user;
  }
  for (const std::string& key : UserSettings::Keys(UserSettings::kHistoryPrefix)) {
    image.histories[key.substr(UserSettings::kHistoryPrefix.size())] = ReadHistory(key);
  }
  image.passphrases = PassphraseStore::Read();
  return image;
}

std::string StoreImage::Fingerprint() const {
  Digest digest;
  for (const auto& [name, user] : accounts) {
    digest.Add("a").Add(name).Add(std::to_string(static_cast<int>(user.group))).Add(user.password);
  }
  for (const auto& [name, passwords] : histories) {
    digest.Add("h").Add(name);
    for (const std::string& password : passwords) digest.Add(password);
  }
  for (const auto& [id, passphrase] : passphrases) {
    digest.Add("p").Add(id).Add(passphrase.alias).Add(passphrase.phrase);
  }
  for (const auto& [path, rule] : rules) digest.Add("r").Add(path).Add(rule);
  return digest.Result();
}

bool StoreImage::HasAdministrator() const {
  return std::any_of(accounts.begin(), accounts.end(), [](const auto& account) {
    const auto& [name, user] = account;
    return user.group == UserMap::ISecurityProvider::kAdministrators && !user.password.empty() &&
           name != UserMap::User::kAnonymousUsername;
  });
}

}  // namespace vigila::server
