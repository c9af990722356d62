#ifndef KRAND_CORE_SQLITE_FILE_H_
#define KRAND_CORE_SQLITE_FILE_H_

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace krand::core {

// A connection to one SQLite file, and its prepared statements. Used by one thread at a time, in
// the process that opened it; statements go before it. Every operation throws SettingsFailure with
// a text that begins with the file's name.
class SqliteFile final {
 public:
  // kAlone reads a file that no one changes meanwhile, and makes nothing beside it.
  enum class Access { kShared, kAlone };

  struct Finalizer {
    void operator()(sqlite3_stmt* statement) const;
  };
  using Statement = std::unique_ptr<sqlite3_stmt, Finalizer>;

  // One use of a prepared statement; gives it back reset and unbound. Bound bytes are borrowed.
  class Use final {
   public:
    Use(SqliteFile& owner, const Statement& statement)
        : owner_(owner), statement_(statement.get()) {}
    ~Use();
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

    Use& Bind(int index, std::string_view bytes);
    Use& Bind(int index, int64_t number);
    // True: there is a row.
    bool Step();
    // Runs it to its end.
    void Finish();
    // Bytes and Number throw for a column of another type; Text takes any.
    std::string Bytes(int column);
    int64_t Number(int column);
    std::string Text(int column);

   private:
    void Check(int result);

    SqliteFile& owner_;
    sqlite3_stmt* const statement_;
  };

  // The file must exist. It is left as it was found when it is closed, with its log, until
  // RemoveLogOnClose.
  SqliteFile(const std::string& path, Access access);
  SqliteFile(const SqliteFile&) = delete;
  SqliteFile& operator=(const SqliteFile&) = delete;

  const std::string& Path() const { return path_; }
  sqlite3* get() const { return database_.get(); }

  // Brings the log into the file when this is the last connection that is closed.
  void RemoveLogOnClose();

  Statement Prepare(const char* sql);
  void Execute(const char* sql);
  int64_t QueryNumber(const char* sql);
  std::string QueryText(const char* sql);
  // False when the last operation failed for another reason than what is in the file.
  bool IsReadable() const;
  [[noreturn]] void Fail(const std::string& what) const;
  [[noreturn]] void FailAsSqliteSays() const;

 private:
  struct Closer {
    void operator()(sqlite3* database) const;
  };

  const std::string path_;
  std::unique_ptr<sqlite3, Closer> database_;
};

}  // namespace krand::core

#endif  // KRAND_CORE_SQLITE_FILE_H_
