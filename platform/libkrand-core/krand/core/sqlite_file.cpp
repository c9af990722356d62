#include "krand/core/sqlite_file.h"

#include <sqlite3.h>

#include "krand/core/settings_failure.h"

namespace krand::core {

namespace {

// As an address of SQLite's, in which some characters have a meaning.
std::string Uri(const std::string& path) {
  std::string uri = "file:";
  for (const char c : path) {
    if (c == '%') {
      uri += "%25";
    } else if (c == '?') {
      uri += "%3f";
    } else if (c == '#') {
      uri += "%23";
    } else {
      uri += c;
    }
  }
  return uri + "?immutable=1";
}

// SQLite would begin every cache with 85 KiB for twenty pages. Refused, and not needed, where
// somebody else in the process has used SQLite before.
void AllocatePagesOneByOne() {
  static const int result = sqlite3_config(SQLITE_CONFIG_PAGECACHE, nullptr, 0, 0);
  static_cast<void>(result);
}

}  // namespace

void SqliteFile::Closer::operator()(sqlite3* database) const {
  sqlite3_close(database);
}

void SqliteFile::Finalizer::operator()(sqlite3_stmt* statement) const {
  sqlite3_finalize(statement);
}

SqliteFile::Use::~Use() {
  sqlite3_reset(statement_);
  sqlite3_clear_bindings(statement_);
}

SqliteFile::Use& SqliteFile::Use::Bind(int index, std::string_view bytes) {
  // SQLite takes a null pointer for NULL, which is not the empty value.
  const char* data = bytes.empty() ? "" : bytes.data();
  Check(sqlite3_bind_blob64(statement_, index, data, bytes.size(), SQLITE_STATIC));
  return *this;
}

SqliteFile::Use& SqliteFile::Use::Bind(int index, int64_t number) {
  Check(sqlite3_bind_int64(statement_, index, number));
  return *this;
}

bool SqliteFile::Use::Step() {
  const int result = sqlite3_step(statement_);
  if (result != SQLITE_ROW && result != SQLITE_DONE) Check(result);
  return result == SQLITE_ROW;
}

void SqliteFile::Use::Finish() {
  while (Step()) {
  }
}

std::string SqliteFile::Use::Bytes(int column) {
  if (sqlite3_column_type(statement_, column) != SQLITE_BLOB) owner_.Fail("holds a damaged entry");
  const void* data = sqlite3_column_blob(statement_, column);
  const int size = sqlite3_column_bytes(statement_, column);
  if (data == nullptr) return std::string();
  return std::string(static_cast<const char*>(data), static_cast<size_t>(size));
}

int64_t SqliteFile::Use::Number(int column) {
  if (sqlite3_column_type(statement_, column) != SQLITE_INTEGER) {
    owner_.Fail("holds a damaged entry");
  }
  return sqlite3_column_int64(statement_, column);
}

std::string SqliteFile::Use::Text(int column) {
  const unsigned char* text = sqlite3_column_text(statement_, column);
  return text == nullptr ? std::string() : reinterpret_cast<const char*>(text);
}

void SqliteFile::Use::Check(int result) {
  if (result != SQLITE_OK) owner_.FailAsSqliteSays();
}

SqliteFile::SqliteFile(const std::string& path, Access access) : path_(path) {
  AllocatePagesOneByOne();
  sqlite3* raw = nullptr;
  const int result =
      access == Access::kShared
          ? sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX,
                            nullptr)
          : sqlite3_open_v2(Uri(path).c_str(), &raw,
                            SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_URI, nullptr);
  database_.reset(raw);
  if (result != SQLITE_OK) {
    Fail(raw == nullptr ? sqlite3_errstr(result) : sqlite3_errmsg(raw));
  }
  sqlite3_db_config(raw, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  sqlite3_db_config(raw, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(raw, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
}

void SqliteFile::RemoveLogOnClose() {
  sqlite3_db_config(get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
}

SqliteFile::Statement SqliteFile::Prepare(const char* sql) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v3(get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) !=
      SQLITE_OK) {
    FailAsSqliteSays();
  }
  return Statement(statement);
}

void SqliteFile::Execute(const char* sql) {
  const Statement statement = Prepare(sql);
  Use(*this, statement).Finish();
}

int64_t SqliteFile::QueryNumber(const char* sql) {
  const Statement statement = Prepare(sql);
  Use use(*this, statement);
  return use.Step() ? use.Number(0) : 0;
}

std::string SqliteFile::QueryText(const char* sql) {
  const Statement statement = Prepare(sql);
  Use use(*this, statement);
  return use.Step() ? use.Text(0) : std::string();
}

bool SqliteFile::IsReadable() const {
  switch (sqlite3_errcode(get()) & 0xff) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
    case SQLITE_ERROR:  // a schema that makes no sense
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      return true;
    default:
      return false;
  }
}

void SqliteFile::Fail(const std::string& what) const {
  throw SettingsFailure(path_ + ": " + what);
}

void SqliteFile::FailAsSqliteSays() const {
  Fail(sqlite3_errmsg(get()));
}

}  // namespace krand::core
