#ifndef VIGILA_SERVER_STORED_SECRETS_H_
#define VIGILA_SERVER_STORED_SECRETS_H_

#include <cstddef>
#include <string>
#include <vector>

namespace vigila::server {

// The values in the settings that only the at-rest key can read: passwords, the histories' old
// passwords, passphrases. Texts that are too short to be of any key (cut off, or put there by hand)
// are none. Settings that cannot be read throw tevra::osa::Exception.
class StoredSecrets final {
 public:
  // Whether there may be any. A record that no load would accept counts, so that a malformed
  // account never has a new key made over it.
  static bool Any();
  // Those of the records that a load accepts, `limit` at most.
  static std::vector<std::string> Read(size_t limit);
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_STORED_SECRETS_H_
