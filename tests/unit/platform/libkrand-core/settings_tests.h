#ifndef LIBKRAND_CORE_SETTINGS_TESTS_H_
#define LIBKRAND_CORE_SETTINGS_TESTS_H_

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "krand/core/settings_format.h"
#include "support/capturing_log.h"

namespace krand::core {

using Texts = std::vector<std::string>;

// What the settings functions complained of.
inline Texts ErrorLines(const support::CapturingLog& log) {
  return log.TextsOf("krand", tevra::core::Logger::kError);
}

// Runs `body` in a child and gives its exit code.
inline int InChild(const std::function<int()>& body) {
  const pid_t child = fork();
  if (child == 0) _exit(body());
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

// Flushes of this process, which go through settings_disk_failures_test.cpp.
struct Flushes {
  static inline std::atomic<int> count{0};
};

// While one lives, this process's flushes do nothing: for tests of thousands of stores, none of
// which has to outlive the machine.
class NoFlushes final {
 public:
  NoFlushes() { ++alive_; }
  ~NoFlushes() { --alive_; }
  NoFlushes(const NoFlushes&) = delete;
  NoFlushes& operator=(const NoFlushes&) = delete;
  static bool Hold() { return alive_ > 0; }

 private:
  static inline std::atomic<int> alive_{0};
};

// With an administrator "admin" and a viewer "anna".
inline void MakeStoreOfTheFirstFormat(const std::string& path) {
  sqlite3* database = nullptr;
  sqlite3_open(path.c_str(), &database);
  const std::string sql =
      std::string(
          "PRAGMA synchronous=OFF; PRAGMA journal_mode=WAL; PRAGMA user_version=1;"
          "PRAGMA application_id=0x76676c61;") +
      SettingsFormat::kFirstSchema +
      "; INSERT INTO settings VALUES(CAST('user.admin' AS BLOB), 2, CAST('{\"Groups\":1}' AS "
      "BLOB)), (CAST('user.anna' AS BLOB), 2, CAST('{\"Groups\":8}' AS BLOB))";
  EXPECT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(database);
}

}  // namespace krand::core

#endif  // LIBKRAND_CORE_SETTINGS_TESTS_H_
