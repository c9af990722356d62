#ifndef VIGILA_SERVER_BACKUP_STORE_IMAGE_H_
#define VIGILA_SERVER_BACKUP_STORE_IMAGE_H_

#include <map>
#include <string>
#include <vector>

#include "vigila/server/passphrase_store.h"
#include "vigila/server/user_map_impl.h"

namespace vigila::server {

// Everything that a device keeps of its accounts, as it is stored: secrets in their at-rest form.
struct StoreImage {
  UserMap::Impl::Users accounts;
  std::map<std::string, std::vector<std::string>> histories;  // by name
  PassphraseStore::Passphrases passphrases;
  std::map<std::string, std::string> rules;  // the changeable ones, by path

  // What the settings hold, without the rules. A history that is malformed is taken for an empty
  // one, as it is when a password is changed. Throws tevra::osa::Exception when they cannot be
  // read.
  static StoreImage Read();

  // Same for the same accounts, groups, passwords, histories, passphrases and rules. What a logon
  // changes by itself does not count: a device that is being tried with wrong passwords could not
  // be restored otherwise.
  std::string Fingerprint() const;
  bool HasAdministrator() const;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_BACKUP_STORE_IMAGE_H_
