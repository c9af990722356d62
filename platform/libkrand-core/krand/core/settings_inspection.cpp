#include "krand/core/settings_inspection.h"

#include <functional>
#include <set>
#include <utility>

#include "krand/core/settings_failure.h"

namespace krand::core {

namespace {

using Keep = SettingsInspection::Keep;

class Inspector final {
 public:
  Inspector(SqliteFile& file, Keep keep) : file_(file), keep_(keep) {}

  // In one transaction: another process may write to a store that is being opened.
  SettingsInspection Inspect() {
    file_.Execute("BEGIN");
    InspectAll();
    file_.Execute("COMMIT");
    return std::move(found_);
  }

 private:
  void InspectAll() {
    bool has_tables = false;
    Try([&] { has_tables = SettingsFormat::HasSchema(file_, SettingsFormat::kSchema); });
    if (!has_tables) {
      if (Sound()) Found("it does not hold the settings tables as this program makes them");
      return;
    }
    Try([&] {
      const std::string verdict = file_.QueryText("PRAGMA quick_check(1)");
      if (verdict != "ok") Found(verdict);
    });
    Try([&] {
      const SqliteFile::Statement read = file_.Prepare(SettingsFormat::kReadManifest);
      found_.manifest = SettingsFormat::ReadManifest(file_, read);
    });
    ReadRecords("SELECT key, type, value, checksum FROM settings ORDER BY key");
    if (Sound()) CompareWithManifest();
    // What lies behind a page that cannot be read is reached from the other end.
    if (!Sound() && keep_ == Keep::kIntactRecords) {
      ReadRecords("SELECT key, type, value, checksum FROM settings ORDER BY key DESC");
    }
  }

  bool Sound() const { return found_.damage.empty(); }
  void Found(const std::string& what) {
    for (const std::string& known : found_.damage) {
      if (known == what) return;
    }
    found_.damage.push_back(what);
  }

  // A step that fails because of what is in the file has found damage.
  void Try(const std::function<void()>& step) {
    try {
      step();
    } catch (const SettingsFailure& failure) {
      if (!file_.IsReadable()) throw;
      Found(std::string(failure.what()).substr(file_.Path().size() + 2));
    }
  }

  void ReadRecords(const char* sql) {
    Try([&] {
      const SqliteFile::Statement rows = file_.Prepare(sql);
      SqliteFile::Use use(file_, rows);
      while (use.Step()) Judge(use);
    });
  }

  void Judge(SqliteFile::Use& use) {
    SettingsRecord record;
    SettingsChecksum checksum;
    bool matches = false;
    try {
      record = {use.Bytes(0), use.Number(1), use.Bytes(2)};
      checksum = record.Checksum();
      matches = use.Bytes(3) == checksum.Bytes();
    } catch (const SettingsFailure&) {
      // A column of another type than any program writes.
    }
    if (!matches) {
      Found("record \"" + use.Text(0) + "\" does not match its checksum");
      return;
    }
    if (keep_ == Keep::kIntactRecords && !kept_.insert(record.key).second) return;
    ++records_;
    total_ += checksum;
    if (keep_ == Keep::kIntactRecords) found_.intact.push_back(std::move(record));
  }

  void CompareWithManifest() {
    if (records_ != found_.manifest.records) {
      Found("it holds " + std::to_string(records_) + " records and should hold " +
            std::to_string(found_.manifest.records));
    } else if (total_ != found_.manifest.total) {
      Found("its records are not those of its last change");
    }
  }

  SqliteFile& file_;
  const Keep keep_;
  SettingsInspection found_;
  std::set<std::string> kept_;
  int64_t records_ = 0;
  SettingsChecksum total_;
};

}  // namespace

SettingsInspection SettingsInspection::Of(SqliteFile& file, Keep keep) {
  return Inspector(file, keep).Inspect();
}

}  // namespace krand::core
