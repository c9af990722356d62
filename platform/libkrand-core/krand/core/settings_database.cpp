#include "krand/core/settings_database.h"

#include <sqlite3.h>

#include "krand/core/settings_failure.h"
#include "krand/core/settings_file.h"

namespace krand::core {

namespace {

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

}  // namespace

void SettingsDatabase::Closer::operator()(sqlite3* database) const {
  sqlite3_close(database);
}

void SettingsDatabase::Finalizer::operator()(sqlite3_stmt* statement) const {
  sqlite3_finalize(statement);
}

// One use of a prepared statement; gives it back reset and unbound. Bound bytes are borrowed.
class SettingsDatabase::Use final {
 public:
  Use(SettingsDatabase& owner, const Statement& statement)
      : owner_(owner), statement_(statement.get()) {}
  ~Use() {
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;

  void Bind(int index, std::string_view bytes) {
    // SQLite takes a null pointer for NULL, which is not the empty value.
    const char* data = bytes.empty() ? "" : bytes.data();
    Check(sqlite3_bind_blob64(statement_, index, data, bytes.size(), SQLITE_STATIC));
  }
  void Bind(int index, int64_t number) { Check(sqlite3_bind_int64(statement_, index, number)); }

  bool Step() {
    const int result = sqlite3_step(statement_);
    if (result != SQLITE_ROW && result != SQLITE_DONE) {
      Check(result);
    }
    return result == SQLITE_ROW;
  }

  std::string Bytes(int column) {
    if (sqlite3_column_type(statement_, column) != SQLITE_BLOB) {
      owner_.Fail("holds a damaged entry");
    }
    const void* data = sqlite3_column_blob(statement_, column);
    const int size = sqlite3_column_bytes(statement_, column);
    if (data == nullptr) {
      return std::string();
    }
    return std::string(static_cast<const char*>(data), static_cast<size_t>(size));
  }
  int64_t Number(int column) {
    if (sqlite3_column_type(statement_, column) != SQLITE_INTEGER) {
      owner_.Fail("holds a damaged entry");
    }
    return sqlite3_column_int64(statement_, column);
  }
  std::string Text(int column) {
    const unsigned char* text = sqlite3_column_text(statement_, column);
    return text == nullptr ? std::string() : reinterpret_cast<const char*>(text);
  }

 private:
  void Check(int result) {
    if (result != SQLITE_OK) {
      owner_.Fail(sqlite3_errmsg(owner_.database_.get()));
    }
  }

  SettingsDatabase& owner_;
  sqlite3_stmt* const statement_;
};

SettingsDatabase::SettingsDatabase(const std::string& path, int busy_timeout_ms) : path_(path) {
  SettingsFile::Prepare(path_);
  Open(busy_timeout_ms);
  CheckIdentity();
  if (QueryText("PRAGMA journal_mode=WAL") != "wal") {
    Fail("cannot keep a log beside it");
  }
  // FULL flushes the log once at every commit: an acknowledged write outlives a power cut.
  Execute("PRAGMA synchronous=FULL");
  // In KiB. The readers keep what they have read, so little is kept of it here; the pages of one
  // change stay together until they are more than 256.
  Execute("PRAGMA cache_size=-64");
  Execute("PRAGMA cache_spill=-256");
  CheckContents();
  Prepare();
  sqlite3_db_config(database_.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
}

SettingsDatabase::~SettingsDatabase() {
  if (sqlite3_get_autocommit(database_.get()) == 0) {
    sqlite3_step(rollback_.get());
    sqlite3_reset(rollback_.get());
  }
  sqlite3_wal_checkpoint_v2(database_.get(), nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
}

void SettingsDatabase::Open(int busy_timeout_ms) {
  sqlite3* raw = nullptr;
  const int result =
      sqlite3_open_v2(path_.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  database_.reset(raw);
  if (result != SQLITE_OK) {
    throw SettingsFailure(path_ + ": " +
                          (raw == nullptr ? sqlite3_errstr(result) : sqlite3_errmsg(raw)));
  }
  sqlite3_busy_timeout(raw, busy_timeout_ms);
  // A database that turns out not to be ours is left as it was found.
  sqlite3_db_config(raw, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  sqlite3_db_config(raw, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(raw, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
}

void SettingsDatabase::CheckIdentity() {
  const int64_t application = QueryNumber("PRAGMA application_id");
  if (sqlite3_db_readonly(database_.get(), "main") != 0) {
    Fail("cannot be written");
  }
  if (application != SettingsFile::kApplicationId) {
    Fail("is a database, but not a settings store");
  }
  const int64_t version = QueryNumber("PRAGMA user_version");
  if (version != SettingsFile::kVersion) {
    Fail("has the store format " + std::to_string(version) + "; this program reads format " +
         std::to_string(SettingsFile::kVersion));
  }
}

void SettingsDatabase::CheckContents() {
  if (QueryText("SELECT group_concat(sql, ';') FROM sqlite_schema") != SettingsFile::kSchema) {
    Fail("does not hold the settings table as this program makes it");
  }
  const std::string verdict = QueryText("PRAGMA integrity_check(1)");
  if (verdict != "ok") {
    Fail("is damaged: " + verdict);
  }
}

void SettingsDatabase::Prepare() {
  read_ = PrepareOne("SELECT type, value FROM settings WHERE key = ?1");
  exists_ = PrepareOne("SELECT 1 FROM settings WHERE key = ?1");
  keys_from_ = PrepareOne("SELECT key FROM settings WHERE key >= ?1 ORDER BY key");
  keys_between_ = PrepareOne("SELECT key FROM settings WHERE key >= ?1 AND key < ?2 ORDER BY key");
  write_ = PrepareOne("INSERT OR REPLACE INTO settings(key, type, value) VALUES(?1, ?2, ?3)");
  delete_ = PrepareOne("DELETE FROM settings WHERE key = ?1");
  begin_ = PrepareOne("BEGIN IMMEDIATE");
  commit_ = PrepareOne("COMMIT");
  rollback_ = PrepareOne("ROLLBACK");
}

SettingsDatabase::Statement SettingsDatabase::PrepareOne(const char* sql) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v3(database_.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &statement,
                         nullptr) != SQLITE_OK) {
    Fail(sqlite3_errmsg(database_.get()));
  }
  return Statement(statement);
}

void SettingsDatabase::Execute(const char* sql) {
  const Statement statement = PrepareOne(sql);
  RunStatement(statement);
}

int64_t SettingsDatabase::QueryNumber(const char* sql) {
  const Statement statement = PrepareOne(sql);
  Use use(*this, statement);
  return use.Step() ? use.Number(0) : 0;
}

std::string SettingsDatabase::QueryText(const char* sql) {
  const Statement statement = PrepareOne(sql);
  Use use(*this, statement);
  return use.Step() ? use.Text(0) : std::string();
}

void SettingsDatabase::RunStatement(const Statement& statement) {
  Use use(*this, statement);
  while (use.Step()) {
  }
}

std::optional<SettingsDatabase::Value> SettingsDatabase::Read(std::string_view key) {
  Use use(*this, read_);
  use.Bind(1, key);
  if (!use.Step()) {
    return std::nullopt;
  }
  const int64_t type = use.Number(0);
  if (type < static_cast<int64_t>(Type::kString) ||
      type > static_cast<int64_t>(Type::kStringArray)) {
    Fail("holds a damaged entry");
  }
  return Value{static_cast<Type>(type), use.Bytes(1)};
}

bool SettingsDatabase::Exists(std::string_view key) {
  Use use(*this, exists_);
  use.Bind(1, key);
  return use.Step();
}

std::vector<std::string> SettingsDatabase::Keys(std::string_view prefix) {
  const std::string end = EndOfPrefix(prefix);
  Use use(*this, end.empty() ? keys_from_ : keys_between_);
  use.Bind(1, prefix);
  if (!end.empty()) {
    use.Bind(2, end);
  }
  std::vector<std::string> keys;
  while (use.Step()) {
    keys.push_back(use.Bytes(0));
  }
  return keys;
}

void SettingsDatabase::Write(std::string_view key, Type type, std::string_view bytes) {
  Use use(*this, write_);
  use.Bind(1, key);
  use.Bind(2, static_cast<int64_t>(type));
  use.Bind(3, bytes);
  use.Step();
}

bool SettingsDatabase::Delete(std::string_view key) {
  Use use(*this, delete_);
  use.Bind(1, key);
  use.Step();
  return sqlite3_changes(database_.get()) > 0;
}

void SettingsDatabase::Begin() {
  RunStatement(begin_);
}

void SettingsDatabase::Commit() {
  RunStatement(commit_);
}

void SettingsDatabase::Rollback() {
  // SQLite ends the transaction by itself when the disk is full or fails.
  if (sqlite3_get_autocommit(database_.get()) == 0) {
    RunStatement(rollback_);
  }
}

void SettingsDatabase::Fail(const std::string& what) const {
  throw SettingsFailure(path_ + ": " + what);
}

}  // namespace krand::core
