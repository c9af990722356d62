#include <sstream>

#include "json/elements.h"
#include "json/reader.h"
#include "json/writer.h"
#include "krand/base64/base64.h"
#include "tevra/core/json_utils.h"
#include "tevra/osa/exception.h"
#include "vigila/server/user_map_impl.h"
#include "vigila/server/user_settings.h"

namespace vigila::server {

namespace {

using tevra::core::SecretText;

constexpr char kIdentifierFormat[] =
    "%02hhx%02hhx%02hhx%02hhx-%02hhx%02hhx-%02hhx%02hhx-%02hhx%02hhx-"
    "%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx";

std::string DrawIdentifier() {
  _uuid_t uuid = {};
  uuid_create(&uuid);
  char text[37] = {};
  uuid_sprintf(&uuid, kIdentifierFormat, text, sizeof text);
  return std::string("_") + text;
}

std::string PhraseKey(const std::string& id) {
  return UserSettings::Key(UserSettings::kPhrasePrefix, id);
}

}  // namespace

UserMap::Impl::MyPassphrase::MyPassphrase(const std::string& json) {
  json::Object object;
  std::istringstream stream(json);
  json::Reader::Read(object, stream);
  const json::Object& members = object;
  phrase = tevra::core::JsonUtils::AsString(members["Phrase"]);
  alias = krand::lib::Base64::Decode(tevra::core::JsonUtils::AsString(members["Alias"]));
}

// Deliberate: the alias in base64, which holds any bytes and needs no escapes.
std::string UserMap::Impl::MyPassphrase::ToJson() const {
  return "{\"Phrase\":\"" + phrase + "\",\"Alias\":\"" + krand::lib::Base64::Encode(alias) + "\"}";
}

std::string UserMap::Impl::AddPassphrase(const std::string& phrase, const std::string& alias) {
  if (IsChangeSet()) throw tevra::osa::Exception("a change set keeps no passphrases");
  const tevra::osa::MutexAutoLock lock(mutex_);
  // Deliberate: drawn before the phrase is looked at; a refused call uses an identifier up.
  std::string id = DrawIdentifier();
  while (passphrases_.contains(id)) id = DrawIdentifier();
  if (phrase.empty()) {
    logger_->Error("AddPassphrase: empty passphrase");
    return {};
  }
  MyPassphrase passphrase;
  passphrase.alias = alias;
  try {
    passphrase.phrase = Encrypt(phrase);
    UserSettings::WriteJson(PhraseKey(id), passphrase.ToJson());
  } catch (const tevra::osa::Exception& error) {
    logger_->Error("AddPassphrase: %s", error.what());
    return {};
  }
  passphrases_.emplace(id, std::move(passphrase));
  return id;
}

std::string UserMap::Impl::GetPassphrase(const std::string& id) const {
  const tevra::osa::MutexAutoLock lock(mutex_);
  const auto entry = passphrases_.find(id);
  if (entry == passphrases_.end()) return {};
  const std::optional<SecretText> clear = Decrypt(entry->second.phrase);
  return clear.has_value() ? std::string(clear->View()) : std::string();
}

std::string UserMap::Impl::GetPassphrases() const {
  const tevra::osa::MutexAutoLock lock(mutex_);
  json::Array list;
  for (const auto& [id, passphrase] : passphrases_) {
    json::Object entry;
    entry["Alias"] = json::String(passphrase.alias);
    entry["ID"] = json::String(id);
    list.Insert(entry);
  }
  json::Object document;
  document["Passphrases"] = list;
  std::ostringstream stream;
  json::Writer::Write(document, stream);
  return stream.str();
}

bool UserMap::Impl::DeletePassphrase(const std::string& id) {
  const tevra::osa::MutexAutoLock lock(mutex_);
  const auto entry = passphrases_.find(id);
  if (entry == passphrases_.end()) return false;
  UserSettings::Delete(PhraseKey(id));
  passphrases_.erase(entry);
  return true;
}

}  // namespace vigila::server
