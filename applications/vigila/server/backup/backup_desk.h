#ifndef VIGILA_SERVER_BACKUP_BACKUP_DESK_H_
#define VIGILA_SERVER_BACKUP_BACKUP_DESK_H_

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "json/elements.h"
#include "vigila/server/backup/background_task.h"
#include "vigila/server/backup/backup_work.h"

namespace vigila::server {

class ServerEnv;

// Backups and restorations as callers see them: begun by one call, asked after by others, because
// the work takes longer than requests may wait. One at a time for the whole device. A result waits
// until it was fetched, or another one is begun.
//
// Answers are those of IAdministration's operations. Who asks may do so: that is judged before.
// One request at a time.
class BackupDesk final {
 public:
  // The environment must outlive the desk.
  explicit BackupDesk(ServerEnv& env) : env_(env) {}
  BackupDesk(const BackupDesk&) = delete;
  BackupDesk& operator=(const BackupDesk&) = delete;

  json::Object StartBackup(const std::string& passphrase);
  json::Object GetBackup(const std::string& id, uint32_t offset);

  json::Object PutBackup(const std::string& id, uint32_t offset, const std::string& piece);
  json::Object StartRestore(const std::string& id, const std::string& passphrase);
  json::Object GetRestorePlan(const std::string& id);
  json::Object CommitRestore(const std::string& id);

 private:
  StoreImage ReadStore() const;
  bool IsBusy() const;
  // Forgets what was begun before and is not under way any more.
  void Begin();
  void Install(const StagedRestore& staged);

  ServerEnv& env_;
  std::string id_;  // of what was begun last
  std::string upload_;
  std::unique_ptr<BackgroundTask<SavedBackup>> backup_;
  std::unique_ptr<BackgroundTask<StagedRestore>> restore_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_BACKUP_BACKUP_DESK_H_
