#include "krand/core/settings_database.h"

#include <sqlite3.h>

#include "krand/core/settings_failure.h"
#include "krand/core/settings_file.h"
#include "krand/core/settings_inspection.h"

namespace krand::core {

namespace {

using Use = SqliteFile::Use;

// The smallest key above every key with the prefix; empty when there is none.
std::string EndOfPrefix(std::string_view prefix) {
  std::string end(prefix);
  while (!end.empty() && end.back() == '\xff') {
    end.pop_back();
  }
  if (!end.empty()) {
    end.back() = static_cast<char>(end.back() + 1);
  }
  return end;
}

// The path, once there is a file.
const std::string& Prepared(const std::string& path) {
  SettingsFile::Prepare(path);
  return path;
}

}  // namespace

SettingsDatabase::SettingsDatabase(const std::string& path, int busy_timeout_ms)
    : busy_timeout_ms_(busy_timeout_ms),
      witness_(path),
      file_(Prepared(path), SqliteFile::Access::kShared) {
  SetUp();
  if (SettingsFormat::VersionOf(file_) == SettingsFormat::kFirstVersion) UpgradeFirstVersion();
  CheckContents();
  Prepare();
  CheckWitness();
  file_.RemoveLogOnClose();
  SettleAtStart();
}

SettingsDatabase::~SettingsDatabase() {
  try {
    Rollback();
    if (const auto manifest = WriteBack()) Testify(*manifest);
  } catch (const SettingsFailure&) {
    // The log has everything, and the next start settles it.
  }
}

void SettingsDatabase::SetUp() {
  sqlite3_busy_timeout(file_.get(), busy_timeout_ms_);
  SettingsFormat::VersionOf(file_);
  if (sqlite3_db_readonly(file_.get(), "main") != 0) file_.Fail("cannot be written");
  if (file_.QueryText("PRAGMA journal_mode=WAL") != "wal") {
    file_.Fail("cannot keep a log beside it");
  }
  // FULL flushes the log once at every commit: an acknowledged write outlives a power cut.
  file_.Execute("PRAGMA synchronous=FULL");
  // In KiB. The readers keep what they have read, so little is kept of it here; the pages of one
  // change stay together until they are more than 256.
  file_.Execute("PRAGMA cache_size=-64");
  file_.Execute("PRAGMA cache_spill=-256");
}

void SettingsDatabase::UpgradeFirstVersion() {
  file_.Execute("BEGIN IMMEDIATE");
  // Another process may have done so in the meantime.
  if (SettingsFormat::VersionOf(file_) == SettingsFormat::kFirstVersion) {
    SettingsFormat::Upgrade(file_);
  }
  file_.Execute("COMMIT");
}

void SettingsDatabase::CheckContents() {
  const SettingsInspection found =
      SettingsInspection::Of(file_, SettingsInspection::Keep::kNothing);
  if (!found.damage.empty()) FailAsDamaged(found.damage.front());
}

void SettingsDatabase::CheckWitness() {
  const std::optional<SettingsWitness::Testimony> testimony = witness_.Read();
  if (!testimony) return;
  testimony_ = *testimony;
  const std::string contradiction = testimony->Contradiction(Manifest());
  if (!contradiction.empty()) FailAsDamaged(contradiction);
}

void SettingsDatabase::SettleAtStart() {
  try {
    if (const auto settled = WriteBack()) Testify(*settled);
  } catch (const SettingsFailure&) {
    // A full disk, perhaps, which is no reason not to serve. It is tried again, and then reported.
  }
}

void SettingsDatabase::Prepare() {
  read_ = file_.Prepare("SELECT type, value, checksum FROM settings WHERE key = ?1");
  exists_ = file_.Prepare("SELECT 1 FROM settings WHERE key = ?1");
  checksum_ = file_.Prepare("SELECT checksum FROM settings WHERE key = ?1");
  keys_from_ = file_.Prepare("SELECT key FROM settings WHERE key >= ?1 ORDER BY key");
  keys_between_ =
      file_.Prepare("SELECT key FROM settings WHERE key >= ?1 AND key < ?2 ORDER BY key");
  write_ = file_.Prepare(SettingsFormat::kWriteRecord);
  delete_ = file_.Prepare("DELETE FROM settings WHERE key = ?1");
  read_manifest_ = file_.Prepare(SettingsFormat::kReadManifest);
  write_manifest_ = file_.Prepare(SettingsFormat::kWriteManifest);
  // Writes a page as it is; SQLite would leave out an update of a row that changes nothing.
  begin_log_ =
      file_.Prepare(("PRAGMA user_version=" + std::to_string(SettingsFormat::kVersion)).c_str());
  begin_ = file_.Prepare("BEGIN IMMEDIATE");
  commit_ = file_.Prepare("COMMIT");
  rollback_ = file_.Prepare("ROLLBACK");
}

std::optional<SettingsDatabase::Value> SettingsDatabase::Read(std::string_view key) {
  Use use(file_, read_);
  if (!use.Bind(1, key).Step()) return std::nullopt;
  const int64_t type = use.Number(0);
  if (type < static_cast<int64_t>(Type::kString) ||
      type > static_cast<int64_t>(Type::kStringArray)) {
    file_.Fail("holds a damaged entry");
  }
  Value value{static_cast<Type>(type), use.Bytes(1)};
  if (use.Bytes(2) != SettingsChecksum::OfRecord(key, type, value.bytes).Bytes()) {
    FailAsDamaged("record \"" + std::string(key) + "\" does not match its checksum");
  }
  return value;
}

bool SettingsDatabase::Exists(std::string_view key) {
  Use use(file_, exists_);
  return use.Bind(1, key).Step();
}

std::vector<std::string> SettingsDatabase::Keys(std::string_view prefix) {
  const std::string end = EndOfPrefix(prefix);
  Use use(file_, end.empty() ? keys_from_ : keys_between_);
  use.Bind(1, prefix);
  if (!end.empty()) use.Bind(2, end);
  std::vector<std::string> keys;
  while (use.Step()) keys.push_back(use.Bytes(0));
  return keys;
}

template <typename Body>
void SettingsDatabase::InTransaction(Body body) {
  if (in_transaction_) {
    // SQLite ends a transaction by itself when the disk is full or fails.
    if (sqlite3_get_autocommit(file_.get()) != 0) file_.Fail("the transaction has failed");
    body();
    return;
  }
  Begin();
  try {
    body();
    Commit();
  } catch (...) {
    try {
      Rollback();
    } catch (const SettingsFailure&) {
      // The failure that led here is the one to report.
    }
    throw;
  }
}

std::optional<SettingsChecksum> SettingsDatabase::Recorded(std::string_view key) {
  Use use(file_, checksum_);
  if (!use.Bind(1, key).Step()) return std::nullopt;
  const std::optional<SettingsChecksum> checksum = SettingsChecksum::FromBytes(use.Bytes(0));
  if (!checksum) file_.Fail("holds a damaged entry");
  return checksum;
}

void SettingsDatabase::Forget(std::string_view key) {
  const std::optional<SettingsChecksum> checksum = Recorded(key);
  if (!checksum) return;
  changes_.total -= *checksum;
  --changes_.records;
  changes_.any = true;
}

void SettingsDatabase::Write(std::string_view key, Type type, std::string_view bytes) {
  const SettingsChecksum checksum =
      SettingsChecksum::OfRecord(key, static_cast<int64_t>(type), bytes);
  const std::string text = checksum.Bytes();
  InTransaction([&] {
    Forget(key);
    Use(file_, write_)
        .Bind(1, key)
        .Bind(2, static_cast<int64_t>(type))
        .Bind(3, bytes)
        .Bind(4, text)
        .Finish();
    changes_.total += checksum;
    ++changes_.records;
    changes_.any = true;
  });
}

bool SettingsDatabase::Delete(std::string_view key) {
  bool deleted = false;
  InTransaction([&] {
    Forget(key);
    Use(file_, delete_).Bind(1, key).Finish();
    deleted = sqlite3_changes(file_.get()) > 0;
  });
  return deleted;
}

bool SettingsDatabase::Mark() {
  bool set = false;
  InTransaction([&] {
    set = !changes_.mark && !IsMarked();
    changes_.mark |= set;
    changes_.any |= set;
  });
  return set;
}

void SettingsDatabase::Begin() {
  Use(file_, begin_).Finish();
  in_transaction_ = true;
  changes_ = Changes();
}

void SettingsDatabase::Commit() {
  if (changes_.any) {
    SettingsManifest manifest = Manifest();
    ++manifest.change;
    manifest.records += changes_.records;
    manifest.total += changes_.total;
    manifest.marked |= changes_.mark;
    SettingsFormat::WriteManifest(file_, write_manifest_, manifest);
  }
  Use(file_, commit_).Finish();
  in_transaction_ = false;
}

void SettingsDatabase::Rollback() {
  in_transaction_ = false;
  if (sqlite3_get_autocommit(file_.get()) == 0) Use(file_, rollback_).Finish();
}

SettingsManifest SettingsDatabase::Manifest() {
  return SettingsFormat::ReadManifest(file_, read_manifest_);
}

std::optional<SettingsManifest> SettingsDatabase::WriteBack() {
  const SettingsManifest manifest = Manifest();
  int frames = 0;
  int written = -1;
  // A process that reads the log is not waited for: a change would have to wait, too.
  sqlite3_busy_timeout(file_.get(), 0);
  const int result = sqlite3_wal_checkpoint_v2(file_.get(), nullptr, SQLITE_CHECKPOINT_TRUNCATE,
                                               &frames, &written);
  sqlite3_busy_timeout(file_.get(), busy_timeout_ms_);
  if (result != SQLITE_OK && result != SQLITE_BUSY) file_.FailAsSqliteSays();
  // Busy with everything written: a reader holds on to the log, which has nothing new any more.
  if (result == SQLITE_BUSY && frames != written) return std::nullopt;
  return manifest;
}

void SettingsDatabase::BeginLog() {
  Use(file_, begin_log_).Finish();
}

void SettingsDatabase::Testify(const SettingsManifest& manifest) {
  const SettingsWitness::Testimony testimony{manifest.change, manifest.marked};
  // Not of a store that has no change: where it was lost there is nothing to miss.
  if (manifest.change <= testimony_.change) return;
  witness_.Write(testimony);
  testimony_ = testimony;
}

void SettingsDatabase::CopyTo(const std::string& path) {
  SqliteFile target(path, SqliteFile::Access::kShared);
  target.Execute("PRAGMA synchronous=OFF");
  sqlite3_backup* const backup = sqlite3_backup_init(target.get(), "main", file_.get(), "main");
  if (backup == nullptr) target.FailAsSqliteSays();
  const int result = sqlite3_backup_step(backup, -1);
  sqlite3_backup_finish(backup);
  if (result != SQLITE_DONE) target.Fail(sqlite3_errstr(result));
  // One file, which can be read where nothing may be written.
  target.Execute("PRAGMA journal_mode=DELETE");
}

void SettingsDatabase::FailAsDamaged(const std::string& what) const {
  file_.Fail("is damaged: " + what);
}

}  // namespace krand::core
