#ifndef SUPPORT_SETTINGS_FAULTS_H_
#define SUPPORT_SETTINGS_FAULTS_H_

#include <dlfcn.h>
#include <sqlite3.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <string_view>

#include "krand/core/krand_core.h"

// Writes of the settings store that a test makes fail, as a disk would: in a program that includes
// this, SQLite's statements pass through here.

namespace support::settings_faults {

inline std::atomic<int> writes_until_fault{-1};

// The statements that put something into the store: a record, a deletion, the end of a transaction.
inline bool IsWrite(sqlite3_stmt* statement) {
  const char* const text = sqlite3_sql(statement);
  const std::string_view sql = text == nullptr ? "" : text;
  return sql.starts_with("INSERT OR REPLACE INTO settings") ||
         sql.starts_with("DELETE FROM settings") || sql == "COMMIT";
}

inline bool Fails(sqlite3_stmt* statement) {
  if (writes_until_fault < 0 || !IsWrite(statement)) return false;
  int left = writes_until_fault;
  while (left > 0 && !writes_until_fault.compare_exchange_weak(left, left - 1)) {
  }
  if (left == 1) writes_until_fault = -1;
  return left == 1;
}

}  // namespace support::settings_faults

// Stands before the library's function.
extern "C" inline __attribute__((used)) int sqlite3_step(sqlite3_stmt* statement) {
  using Step = int (*)(sqlite3_stmt*);
  static const auto next = reinterpret_cast<Step>(dlsym(RTLD_NEXT, "sqlite3_step"));
  return support::settings_faults::Fails(statement) ? SQLITE_IOERR : next(statement);
}

// The `writes`-th following write, deletion or commit fails and writes nothing; those after it work
// again. A write outside a transaction has a commit of its own. -1 switches off.
inline void krand_core_settings_fail_after(int writes) {
  support::settings_faults::writes_until_fault = writes;
}

// Write transactions that became durable since the store was made: the number of its last change.
inline unsigned long krand_core_settings_write_count() {
  sqlite3* database = nullptr;
  unsigned long change = 0;
  const auto take = [](void* out, int, char** values, char**) {
    *static_cast<unsigned long*>(out) = std::stoul(values[0]);
    return 0;
  };
  sqlite3_open_v2(krand_core_settings_location(), &database, SQLITE_OPEN_READONLY, nullptr);
  const int result = sqlite3_exec(database, "SELECT change FROM manifest", take, &change, nullptr);
  sqlite3_close(database);
  if (result != SQLITE_OK) throw std::runtime_error("settings: no change number");
  return change;
}

#endif  // SUPPORT_SETTINGS_FAULTS_H_
