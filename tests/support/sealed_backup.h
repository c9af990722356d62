#ifndef SUPPORT_SEALED_BACKUP_H_
#define SUPPORT_SEALED_BACKUP_H_

#include <openssl/evp.h>

#include <deque>
#include <string>

#include "vigila/server/backup/backup_content.h"
#include "vigila/server/backup/backup_file.h"

namespace support {

using vigila::server::BackupContent;
using vigila::server::BackupFile;

inline const std::string kBackupPassphrase = "correct horse battery";

// A backup file whose check sum is right again after bytes of it were replaced.
inline std::string WithCheckSum(std::string file) {
  constexpr size_t kSumBytes = 32;
  const size_t summed = file.size() - kSumBytes;
  EVP_Digest(file.data(), summed, reinterpret_cast<unsigned char*>(file.data() + summed), nullptr,
             EVP_sha256(), nullptr);
  return file;
}

inline std::string Sealed(const BackupContent& content) {
  return BackupFile::Seal(content.Encode().View(), kBackupPassphrase);
}

// As many accounts as a device may have, the anonymous one included, each with a full history.
// `secrets` keeps the passwords.
inline BackupContent FullContent(std::deque<std::string>& secrets) {
  BackupContent content;
  content.accounts["nobody"].group = 16;
  while (content.accounts.size() < 1024) {
    const std::string number = std::to_string(10000 + content.accounts.size());
    BackupContent::Account& account = content.accounts["account." + number];
    account.group = content.accounts.size() == 2 ? 1 : 8;
    account.password_time = 1800000000;
    account.password = secrets.emplace_back("password " + number);
    for (int i = 0; i < 5; ++i) {
      content.histories["account." + number].push_back(
          secrets.emplace_back("one of the passwords before, " + number + std::to_string(i)));
    }
  }
  return content;
}

}  // namespace support

#endif  // SUPPORT_SEALED_BACKUP_H_
