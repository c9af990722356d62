#ifndef KRAND_CORE_SETTINGS_DATABASE_H_
#define KRAND_CORE_SETTINGS_DATABASE_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace krand::core {

// One domain's settings in one SQLite file: typed values under byte keys. A write is on the disk
// when it returns, for one flush. Used by one thread at a time, in the process that opened it.
//
// Every operation throws SettingsFailure, with a text that names the file, when the file cannot be
// read or written or holds what no version of this class writes.
class SettingsDatabase final {
 public:
  enum class Type : int64_t { kString = 1, kJson = 2, kStringArray = 3 };
  struct Value {
    Type type;
    std::string bytes;
  };

  // Opens the file, or makes a new one (and its directory, 0700) where there is none. An existing
  // file is checked from end to end and never replaced: a store that cannot be read must not come
  // back as an empty one. Other processes that hold the file are waited for, `busy_timeout_ms`
  // milliseconds at each operation.
  SettingsDatabase(const std::string& path, int busy_timeout_ms);
  // Writes the log back into the file and closes it; what was written is safe either way.
  ~SettingsDatabase();
  SettingsDatabase(const SettingsDatabase&) = delete;
  SettingsDatabase& operator=(const SettingsDatabase&) = delete;

  std::optional<Value> Read(std::string_view key);
  bool Exists(std::string_view key);
  // Keys that begin with the prefix, in byte order.
  std::vector<std::string> Keys(std::string_view prefix);

  // Replaces a value of any type.
  void Write(std::string_view key, Type type, std::string_view bytes);
  // False when there was no such key.
  bool Delete(std::string_view key);

  void Begin();
  void Commit();
  void Rollback();

 private:
  class Use;
  struct Closer {
    void operator()(sqlite3* database) const;
  };
  struct Finalizer {
    void operator()(sqlite3_stmt* statement) const;
  };
  using Statement = std::unique_ptr<sqlite3_stmt, Finalizer>;

  void Open(int busy_timeout_ms);
  void CheckIdentity();
  void CheckContents();
  void Prepare();
  Statement PrepareOne(const char* sql);
  void Execute(const char* sql);
  int64_t QueryNumber(const char* sql);
  std::string QueryText(const char* sql);
  void RunStatement(const Statement& statement);
  [[noreturn]] void Fail(const std::string& what) const;

  // Constant after construction.
  const std::string path_;
  std::unique_ptr<sqlite3, Closer> database_;
  Statement read_;
  Statement exists_;
  Statement keys_from_;
  Statement keys_between_;
  Statement write_;
  Statement delete_;
  Statement begin_;
  Statement commit_;
  Statement rollback_;
};

}  // namespace krand::core

#endif  // KRAND_CORE_SETTINGS_DATABASE_H_
