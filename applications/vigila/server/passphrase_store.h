#ifndef VIGILA_SERVER_PASSPHRASE_STORE_H_
#define VIGILA_SERVER_PASSPHRASE_STORE_H_

#include <map>
#include <string>

#include "tevra/core/logger.h"

namespace vigila::server {

class PasswordVault;

// A named secret of another service, as stored.
struct Passphrase {
  Passphrase() = default;
  // Throws when a member is missing or of another type.
  explicit Passphrase(const std::string& json);
  Passphrase(const Passphrase&) = default;
  Passphrase& operator=(const Passphrase&) = default;
  virtual ~Passphrase() = default;

  std::string ToJson() const;

  std::string alias;
  std::string phrase;  // at-rest form
};

// The passphrases that the user store keeps for other services, each under an identifier that is
// drawn for it, and every change in the settings at once. Not synchronised.
class PassphraseStore final {
 public:
  using Passphrases = std::map<std::string, Passphrase>;

  // Empty. The vault must outlive it.
  explicit PassphraseStore(const PasswordVault& vault);

  // What the settings hold. Throws on a malformed record.
  static Passphrases Read();
  void Adopt(Passphrases passphrases) { passphrases_ = std::move(passphrases); }

  // The new identifier; empty when the phrase is empty or could not be encrypted or written.
  std::string Add(const std::string& phrase, const std::string& alias);
  // Empty for an unknown identifier.
  std::string Get(const std::string& id) const;
  // {"Passphrases":[{"Alias":"…","ID":"…"},…]} in identifier order.
  std::string List() const;
  // False for an unknown identifier. Throws when the settings cannot be written.
  bool Delete(const std::string& id);

 private:
  const PasswordVault& vault_;
  tevra::core::Logger* const logger_;
  Passphrases passphrases_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_PASSPHRASE_STORE_H_
