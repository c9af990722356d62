#include "vigila/server/backup/backup_desk.h"

#include <algorithm>
#include <utility>

#include "krand/base64/base64.h"
#include "tevra/core/hexadecimal.h"
#include "tevra/core/logger.h"
#include "utilc/randbytes.h"
#include "vigila/contract/result_codes.h"
#include "vigila/server/administration/answer.h"
#include "vigila/server/at_rest_cipher.h"
#include "vigila/server/backup/backup_file.h"
#include "vigila/server/permission_impl.h"
#include "vigila/server/security_provider.h"
#include "vigila/server/server_env.h"

namespace vigila::server {
namespace {

using tevra::core::SecretText;

// Of the file; in Base64 a third more, and well below the longest message of either transport.
constexpr size_t kPieceBytes = 192 * 1024;

std::string DrawId() {
  char bytes[8];
  randbytes(bytes, sizeof(bytes));
  return tevra::core::Hexadecimal(std::string_view(bytes, sizeof(bytes)));
}

json::Object Describe(const StagedRestore::Difference& difference) {
  json::Object object;
  object["Added"] = answer::Names(difference.added);
  object["Changed"] = answer::Names(difference.changed);
  object["Removed"] = answer::Names(difference.removed);
  return object;
}

json::Object Count(const StoreImage& store) {
  json::Object object;
  object["Accounts"] = json::Number(store.accounts.size());
  object["Passphrases"] = json::Number(store.passphrases.size());
  object["Rules"] = json::Number(store.rules.size());
  return object;
}

tevra::core::Logger* GetLogger() {
  return tevra::core::Logger::GetLogger("Backup");
}

}  // namespace

StoreImage BackupDesk::ReadStore() const {
  // A load writes what it finds missing, "nobody" in a new store for one.
  env_.GetSecurityProvider()->Users().GetNobody();
  StoreImage store = StoreImage::Read();
  store.rules = env_.GetPermission().GetChangeableRules();
  return store;
}

bool BackupDesk::IsBusy() const {
  return (backup_ != nullptr && !backup_->IsDone()) || (restore_ != nullptr && !restore_->IsDone());
}

void BackupDesk::Begin() {
  id_ = DrawId();
  upload_ = std::string();
  backup_.reset();
  restore_.reset();
}

json::Object BackupDesk::StartBackup(const std::string& passphrase) {
  if (IsBusy()) return answer::WithCode(contract::kBusy);
  if (passphrase.size() < BackupFile::kMinimumPassphraseBytes) {
    return answer::WithCode(contract::kPassphraseTooShort);
  }
  auto store = std::make_shared<const StoreImage>(ReadStore());
  // No restoration would accept it.
  if (!store->HasAdministrator()) return answer::WithCode(contract::kLastAdministrator);
  std::shared_ptr<AtRestCipher> cipher = env_.GetAtRestCipher().Duplicate();
  Begin();
  backup_ = std::make_unique<BackgroundTask<SavedBackup>>(
      [store, cipher, secret = std::make_shared<const SecretText>(passphrase)](
          const std::atomic<bool>& stop) { return SaveBackup(*store, *cipher, *secret, stop); });
  json::Object object = answer::WithCode(contract::kApplied);
  object["Id"] = json::String(id_);
  object["Holds"] = Count(*store);
  return object;
}

json::Object BackupDesk::GetBackup(const std::string& id, uint32_t offset) {
  if (backup_ == nullptr || id != id_) return answer::WithCode(contract::kNoSuchTask);
  json::Object object = answer::WithCode(contract::kApplied);
  object["Ready"] = json::Boolean(backup_->IsDone());
  if (!backup_->IsDone()) return object;
  const SavedBackup& saved = backup_->Get();
  if (saved.code != contract::kApplied) return answer::WithCode(saved.code);
  if (offset >= saved.file.size()) return answer::WithCode(contract::kMalformed);
  const std::string piece = saved.file.substr(offset, kPieceBytes);
  object["Size"] = json::Number(saved.file.size());
  object["Data"] = json::String(krand::lib::Base64::Encode(piece));
  object["Unreadable"] = json::Number(saved.unreadable);
  if (offset == 0) {
    GetLogger()->Notice("The accounts have been backed up.");
    if (saved.unreadable > 0) {
      GetLogger()->Warning("%zu stored secrets could not be decrypted and are not in the backup.",
                           saved.unreadable);
    }
  }
  if (offset + piece.size() == saved.file.size()) backup_.reset();
  return object;
}

json::Object BackupDesk::PutBackup(const std::string& id, uint32_t offset,
                                   const std::string& piece) {
  if (id.empty()) {
    if (IsBusy()) return answer::WithCode(contract::kBusy);
    if (offset != 0) return answer::WithCode(contract::kMalformed);
    Begin();
  } else if (id != id_ || backup_ != nullptr || restore_ != nullptr) {
    return answer::WithCode(contract::kNoSuchTask);
  }
  if (offset != upload_.size()) return answer::WithCode(contract::kMalformed);
  if (piece.size() > BackupFile::kMaximumBytes - upload_.size()) {
    return answer::WithCode(contract::kBackupTooLarge);
  }
  upload_ += piece;
  json::Object object = answer::WithCode(contract::kApplied);
  object["Id"] = json::String(id_);
  return object;
}

json::Object BackupDesk::StartRestore(const std::string& id, const std::string& passphrase) {
  if (id.empty() || id != id_ || backup_ != nullptr || restore_ != nullptr) {
    return answer::WithCode(contract::kNoSuchTask);
  }
  if (const int code = BackupFile::Inspect(upload_); code != contract::kApplied) {
    return answer::WithCode(code);
  }
  auto present = std::make_shared<const StoreImage>(ReadStore());
  std::shared_ptr<AtRestCipher> cipher = env_.GetAtRestCipher().Duplicate();
  restore_ = std::make_unique<BackgroundTask<StagedRestore>>(
      [file = std::move(upload_), present, cipher,
       secret = std::make_shared<const SecretText>(passphrase)](const std::atomic<bool>& stop) {
        return StageRestore(file, *secret, *present, *cipher, stop);
      });
  upload_ = std::string();
  return answer::WithCode(contract::kApplied);
}

json::Object BackupDesk::GetRestorePlan(const std::string& id) {
  if (restore_ == nullptr || id != id_) return answer::WithCode(contract::kNoSuchTask);
  json::Object object = answer::WithCode(contract::kApplied);
  object["Ready"] = json::Boolean(restore_->IsDone());
  if (!restore_->IsDone()) return object;
  const StagedRestore& staged = restore_->Get();
  if (staged.code != contract::kApplied) return answer::WithCode(staged.code);
  object["Holds"] = Count(staged.image);
  object["Accounts"] = Describe(staged.accounts);
  object["Passphrases"] = Describe(staged.passphrases);
  json::Array rules;
  const std::map<std::string, std::string> now = env_.GetPermission().GetChangeableRules();
  for (const std::string& path : staged.rules.changed) {
    json::Object rule;
    answer::SetName(rule, "Pattern", path);
    answer::SetName(rule, "TextNow", now.at(path));
    answer::SetName(rule, "Text", staged.image.rules.at(path));
    rules.push_back(rule);
  }
  object["Rules"] = rules;
  object["UnknownRules"] = json::Number(staged.unknown_rules);
  return object;
}

json::Object BackupDesk::CommitRestore(const std::string& id) {
  if (restore_ == nullptr || id != id_ || !restore_->IsDone()) {
    return answer::WithCode(contract::kNoSuchTask);
  }
  const StagedRestore& staged = restore_->Get();
  if (staged.code != contract::kApplied) return answer::WithCode(staged.code);
  if (ReadStore().Fingerprint() != staged.base) return answer::WithCode(contract::kStoreChanged);
  json::Object object = answer::WithCode(contract::kApplied);
  object["Holds"] = Count(staged.image);
  Install(staged);
  restore_.reset();
  return object;
}

// All of it in one transaction, which the rules' lock encloses: their own changes take the lock
// first, too.
void BackupDesk::Install(const StagedRestore& staged) {
  SecurityProvider& provider = *env_.GetSecurityProvider();
  env_.GetPermission().ReplaceRules(staged.image.rules,
                                    [&](const std::map<std::string, std::string>& rule_settings) {
                                      provider.Users().Restore(staged.image, rule_settings);
                                    });
  GetLogger()->Notice("The accounts have been replaced by those of a backup.");
  provider.FireChangeListeners(true);
}

}  // namespace vigila::server
