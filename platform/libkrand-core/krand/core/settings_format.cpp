#include "krand/core/settings_format.h"

#include <optional>
#include <sstream>
#include <string_view>

namespace krand::core {

namespace {

void ExecuteEach(SqliteFile& file, std::string_view statements) {
  std::istringstream stream{std::string(statements)};
  for (std::string sql; std::getline(stream, sql, ';');) file.Execute(sql.c_str());
}

std::vector<SettingsRecord> ReadFirstVersion(SqliteFile& file) {
  const SqliteFile::Statement rows = file.Prepare("SELECT key, type, value FROM settings");
  SqliteFile::Use use(file, rows);
  std::vector<SettingsRecord> records;
  while (use.Step()) records.push_back({use.Bytes(0), use.Number(1), use.Bytes(2)});
  return records;
}

}  // namespace

SettingsChecksum SettingsManifest::Checksum() const {
  return SettingsChecksum::OfBytes(std::to_string(change) + " " + std::to_string(records) + " " +
                                   total.Text() + (marked ? " 1" : " 0"));
}

int64_t SettingsFormat::VersionOf(SqliteFile& file) {
  if (file.QueryNumber("PRAGMA application_id") != kApplicationId) {
    file.Fail("is a database, but not a settings store");
  }
  const int64_t version = file.QueryNumber("PRAGMA user_version");
  if (version < kFirstVersion || version > kVersion) {
    file.Fail("has the store format " + std::to_string(version) + "; this program reads formats " +
              std::to_string(kFirstVersion) + " to " + std::to_string(kVersion));
  }
  return version;
}

bool SettingsFormat::HasSchema(SqliteFile& file, const char* schema) {
  return file.QueryText("SELECT group_concat(sql, ';') FROM sqlite_schema") == schema;
}

void SettingsFormat::Create(SqliteFile& file, const std::vector<SettingsRecord>& records,
                            int64_t change, bool marked) {
  file.Execute(("PRAGMA application_id=" + std::to_string(kApplicationId)).c_str());
  file.Execute(("PRAGMA user_version=" + std::to_string(kVersion)).c_str());
  ExecuteEach(file, kSchema);
  SettingsManifest manifest{change, static_cast<int64_t>(records.size()), {}, marked};
  const SqliteFile::Statement write = file.Prepare(kWriteRecord);
  for (const SettingsRecord& record : records) {
    const SettingsChecksum checksum = record.Checksum();
    manifest.total += checksum;
    const std::string bytes = checksum.Bytes();
    SqliteFile::Use(file, write)
        .Bind(1, record.key)
        .Bind(2, record.type)
        .Bind(3, record.value)
        .Bind(4, bytes)
        .Finish();
  }
  file.Execute("INSERT INTO manifest VALUES(0, 0, x'', 0, x'')");
  WriteManifest(file, file.Prepare(kWriteManifest), manifest);
}

void SettingsFormat::Upgrade(SqliteFile& file) {
  if (!HasSchema(file, kFirstSchema)) {
    file.Fail("is damaged: it does not hold the settings table as format 1 has it");
  }
  const std::string verdict = file.QueryText("PRAGMA integrity_check(1)");
  if (verdict != "ok") file.Fail("is damaged: " + verdict);
  const std::vector<SettingsRecord> records = ReadFirstVersion(file);
  file.Execute("DROP TABLE settings");
  Create(file, records, 1, false);
}

SettingsManifest SettingsFormat::ReadManifest(SqliteFile& file,
                                              const SqliteFile::Statement& statement) {
  SqliteFile::Use use(file, statement);
  if (use.Step()) {
    const std::optional<SettingsChecksum> total = SettingsChecksum::FromBytes(use.Bytes(2));
    if (total) {
      const SettingsManifest manifest{use.Number(0), use.Number(1), *total, use.Number(3) != 0};
      if (use.Bytes(4) == manifest.Checksum().Bytes() && !use.Step()) return manifest;
    }
  }
  file.Fail("the row that vouches for its records does not match its checksum");
}

void SettingsFormat::WriteManifest(SqliteFile& file, const SqliteFile::Statement& statement,
                                   const SettingsManifest& manifest) {
  const std::string total = manifest.total.Bytes();
  const std::string checksum = manifest.Checksum().Bytes();
  SqliteFile::Use(file, statement)
      .Bind(1, manifest.change)
      .Bind(2, manifest.records)
      .Bind(3, total)
      .Bind(4, int64_t{manifest.marked})
      .Bind(5, checksum)
      .Finish();
}

}  // namespace krand::core
