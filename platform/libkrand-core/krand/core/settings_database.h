#ifndef KRAND_CORE_SETTINGS_DATABASE_H_
#define KRAND_CORE_SETTINGS_DATABASE_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "krand/core/settings_format.h"
#include "krand/core/settings_witness.h"
#include "krand/core/sqlite_file.h"

namespace krand::core {

// One domain's settings in one SQLite file: typed values under byte keys. A write is on the disk
// when it returns, for one flush: in the log beside the file, which WriteBack brings into it. Every
// record carries a checksum, and the manifest vouches for all of them. Used by one thread at a
// time, in the process that opened it.
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
  // file is checked from end to end and beside its witness, and never replaced: a store that cannot
  // be read must not come back as an empty one. One that is refused is left as it was found. A
  // store of the first format is taken to the present one. Other processes that hold the file are
  // waited for, `busy_timeout_ms` milliseconds at each operation.
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
  // Sets the mark, for good. False when it was set.
  bool Mark();
  bool IsMarked() { return Manifest().marked; }

  void Begin();
  void Commit();
  void Rollback();

  SettingsManifest Manifest();
  // Brings the log into the file and empties it. The manifest that stands in the file then; nothing
  // when another process reads what is not in it yet. Not inside a transaction.
  std::optional<SettingsManifest> WriteBack();
  // Makes the emptied log begin again, which costs a flush that the next change would have to wait
  // for otherwise.
  void BeginLog();
  // Writes the witness unless it says as much already. May run beside the other operations, but not
  // beside itself.
  void Testify(const SettingsManifest& manifest);
  // Copies the whole store into another file, which is not flushed.
  void CopyTo(const std::string& path);

 private:
  void SetUp();
  void UpgradeFirstVersion();
  void CheckContents();
  void CheckWitness();
  void SettleAtStart();
  void Prepare();
  template <typename Body>
  void InTransaction(Body body);
  // The checksum under `key`, of a record that is there.
  std::optional<SettingsChecksum> Recorded(std::string_view key);
  void Forget(std::string_view key);
  [[noreturn]] void FailAsDamaged(const std::string& what) const;

  // Constant after construction.
  const int busy_timeout_ms_;
  const SettingsWitness witness_;
  SqliteFile file_;
  SqliteFile::Statement read_;
  SqliteFile::Statement exists_;
  SqliteFile::Statement checksum_;
  SqliteFile::Statement keys_from_;
  SqliteFile::Statement keys_between_;
  SqliteFile::Statement write_;
  SqliteFile::Statement delete_;
  SqliteFile::Statement read_manifest_;
  SqliteFile::Statement write_manifest_;
  SqliteFile::Statement begin_log_;
  SqliteFile::Statement begin_;
  SqliteFile::Statement commit_;
  SqliteFile::Statement rollback_;

  // What the open transaction has changed; the manifest has only the total and the number of
  // records.
  struct Changes {
    bool any = false;
    bool mark = false;
    int64_t records = 0;
    SettingsChecksum total;
  };
  bool in_transaction_ = false;
  Changes changes_;
  // Of Testify alone.
  SettingsWitness::Testimony testimony_;
};

}  // namespace krand::core

#endif  // KRAND_CORE_SETTINGS_DATABASE_H_
