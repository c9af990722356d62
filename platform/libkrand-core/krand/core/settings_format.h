#ifndef KRAND_CORE_SETTINGS_FORMAT_H_
#define KRAND_CORE_SETTINGS_FORMAT_H_

#include <cstdint>
#include <string>
#include <vector>

#include "krand/core/settings_checksum.h"
#include "krand/core/sqlite_file.h"

namespace krand::core {

struct SettingsRecord {
  std::string key;
  int64_t type = 0;
  std::string value;

  SettingsChecksum Checksum() const { return SettingsChecksum::OfRecord(key, type, value); }
};

// The row that vouches for all records. It changes in the transaction of every change.
struct SettingsManifest {
  int64_t change = 0;  // number of the last change; grows by one with each
  int64_t records = 0;
  SettingsChecksum total;
  bool marked =
      false;  // the store holds what it must never lose again; what, the layer above knows

  SettingsChecksum Checksum() const;
  bool operator==(const SettingsManifest&) const = default;
};

// The tables of a settings store.
class SettingsFormat final {
 public:
  // Number in the file's header that tells a settings store from any other database.
  static constexpr int kApplicationId = 0x76676c61;  // "vgla"
  static constexpr int kVersion = 2;
  // Without checksums and manifest.
  static constexpr int kFirstVersion = 1;

  static constexpr const char* kFirstSchema =
      "CREATE TABLE settings(key BLOB PRIMARY KEY, type INTEGER NOT NULL, value BLOB NOT NULL) "
      "WITHOUT ROWID";
  static constexpr const char* kSchema =
      "CREATE TABLE settings(key BLOB PRIMARY KEY, type INTEGER NOT NULL, value BLOB NOT NULL, "
      "checksum BLOB NOT NULL) WITHOUT ROWID;"
      "CREATE TABLE manifest(change INTEGER NOT NULL, records INTEGER NOT NULL, "
      "total BLOB NOT NULL, marked INTEGER NOT NULL, checksum BLOB NOT NULL)";

  static constexpr const char* kReadManifest =
      "SELECT change, records, total, marked, checksum FROM manifest";
  static constexpr const char* kWriteManifest =
      "UPDATE manifest SET change = ?1, records = ?2, total = ?3, marked = ?4, checksum = ?5";
  static constexpr const char* kWriteRecord =
      "INSERT OR REPLACE INTO settings(key, type, value, checksum) VALUES(?1, ?2, ?3, ?4)";

  // The version; throws when the file is no settings store or of a version that is not known here.
  static int64_t VersionOf(SqliteFile& file);
  static bool HasSchema(SqliteFile& file, const char* schema);

  // Inside a transaction: makes the tables and fills them.
  static void Create(SqliteFile& file, const std::vector<SettingsRecord>& records, int64_t change,
                     bool marked);
  // Inside a transaction: takes a sound store of the first version to the present one.
  static void Upgrade(SqliteFile& file);

  // With kReadManifest and kWriteManifest. Reading throws when the row does not vouch for itself.
  static SettingsManifest ReadManifest(SqliteFile& file, const SqliteFile::Statement& statement);
  static void WriteManifest(SqliteFile& file, const SqliteFile::Statement& statement,
                            const SettingsManifest& manifest);
};

}  // namespace krand::core

#endif  // KRAND_CORE_SETTINGS_FORMAT_H_
