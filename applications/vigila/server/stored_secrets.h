#ifndef VIGILA_SERVER_STORED_SECRETS_H_
#define VIGILA_SERVER_STORED_SECRETS_H_

#include <cstddef>
#include <string>
#include <vector>

namespace vigila::server {

// The values in the settings that only the at-rest key can read: passwords, the histories' old
// passwords, passphrases. Settings that cannot be read throw tevra::osa::Exception.
class StoredSecrets final {
 public:
  // Whether there may be any. A record that no load would accept counts, so that a malformed
  // account never has a new key made over it.
  static bool Any();
  // Those of the records that a load accepts, `limit` at most.
  static std::vector<std::string> Read(size_t limit);

  // Contract: a stored password of 32 characters is taken for a digest that somebody put there.
  // No key reads it, and no clear password can be had from it.
  static bool IsDigest(const std::string& stored) { return stored.size() == 32; }
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_STORED_SECRETS_H_
