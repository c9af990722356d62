#include "vigila/server/passphrase_store.h"

#include <optional>
#include <sstream>
#include <utility>

#include "json/elements.h"
#include "json/reader.h"
#include "json/writer.h"
#include "krand/base64/base64.h"
#include "tevra/core/json_utils.h"
#include "tevra/osa/exception.h"
#include "utilc/uuid.h"
#include "vigila/server/password_vault.h"
#include "vigila/server/user_settings.h"

namespace vigila::server {

namespace {

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

Passphrase::Passphrase(const std::string& json) {
  json::Object object;
  std::istringstream stream(json);
  json::Reader::Read(object, stream);
  phrase = tevra::core::JsonUtils::AsString(json::Member(object, "Phrase"));
  alias =
      krand::lib::Base64::Decode(tevra::core::JsonUtils::AsString(json::Member(object, "Alias")));
}

// Contract: the alias in base64, which holds any bytes and needs no escapes.
std::string Passphrase::ToJson() const {
  return "{\"Phrase\":\"" + phrase + "\",\"Alias\":\"" + krand::lib::Base64::Encode(alias) + "\"}";
}

PassphraseStore::PassphraseStore(const PasswordVault& vault)
    : vault_(vault), logger_(tevra::core::Logger::GetLogger("UserMap")) {}

PassphraseStore::Passphrases PassphraseStore::Read() {
  Passphrases passphrases;
  for (const std::string& key : UserSettings::Keys(UserSettings::kPhrasePrefix)) {
    const std::optional<Passphrase> passphrase = UserSettings::ReadRecord<Passphrase>(key);
    if (!passphrase.has_value()) continue;
    passphrases[key.substr(UserSettings::kPhrasePrefix.size())] = *passphrase;
  }
  return passphrases;
}

std::string PassphraseStore::Add(const std::string& phrase, const std::string& alias) {
  // Deliberate: drawn before the phrase is looked at; a refused call uses an identifier up.
  std::string id = DrawIdentifier();
  while (passphrases_.contains(id)) id = DrawIdentifier();
  if (phrase.empty()) {
    logger_->Error("AddPassphrase: empty passphrase");
    return {};
  }
  Passphrase passphrase;
  passphrase.alias = alias;
  try {
    passphrase.phrase = vault_.Encrypt(phrase);
    UserSettings::WriteJson(PhraseKey(id), passphrase.ToJson());
  } catch (const tevra::osa::Exception& error) {
    logger_->Error("AddPassphrase: %s", error.what());
    return {};
  }
  passphrases_.emplace(id, std::move(passphrase));
  return id;
}

std::string PassphraseStore::Get(const std::string& id) const {
  const auto entry = passphrases_.find(id);
  if (entry == passphrases_.end()) return {};
  const std::optional<tevra::core::SecretText> clear = vault_.Decrypt(entry->second.phrase);
  return clear.has_value() ? std::string(clear->View()) : std::string();
}

std::string PassphraseStore::List() const {
  json::Array list;
  for (const auto& [id, passphrase] : passphrases_) {
    json::Object entry;
    entry["Alias"] = json::String(passphrase.alias);
    entry["ID"] = json::String(id);
    list.push_back(std::move(entry));
  }
  json::Object document;
  document["Passphrases"] = std::move(list);
  std::ostringstream stream;
  json::Writer::Write(std::move(document), stream);
  return stream.str();
}

bool PassphraseStore::Delete(const std::string& id) {
  const auto entry = passphrases_.find(id);
  if (entry == passphrases_.end()) return false;
  UserSettings::Delete(PhraseKey(id));
  passphrases_.erase(entry);
  return true;
}

}  // namespace vigila::server
