#include "krand/core/settings_file.h"

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "krand/core/settings_failure.h"
#include "krand/core/settings_witness.h"
#include "tevra/core/platform_config.h"

namespace krand::core {

namespace {

const tevra::core::ConfigKey kDirectory{"Settings", "directory", "/var/lib/vigila"};

using tevra::osa::UnfinishedFile;

[[noreturn]] void Fail(const std::string& path, const std::string& what, int error) {
  throw SettingsFailure(path + ": " + what + ": " + strerror(error));
}

// Whoever may write the directory may put another store, log or witness in the place of ours. The
// sticky bit does not help: what is not there yet can still be made.
void CheckDirectory(const std::string& directory, const struct stat& status) {
  if (!S_ISDIR(status.st_mode)) {
    Fail(directory, "cannot be the settings directory", ENOTDIR);
  }
  if ((status.st_mode & 022) != 0) {
    char mode[8];
    snprintf(mode, sizeof(mode), "%04o", static_cast<unsigned>(status.st_mode & 07777));
    throw SettingsFailure(directory + ": others may write the settings directory (mode " + mode +
                          "); it must be 0700, or 0755 at the most");
  }
  if (geteuid() != 0 && status.st_uid != geteuid() && status.st_uid != 0) {
    throw SettingsFailure(directory + ": the settings directory belongs to another user (uid " +
                          std::to_string(status.st_uid) + ")");
  }
}

void MakeDirectory(const std::string& directory) {
  struct stat status;
  if (stat(directory.c_str(), &status) == 0) {
    CheckDirectory(directory, status);
    return;
  }
  std::filesystem::path leaf = std::filesystem::path(directory).parent_path();
  std::error_code ignored;  // mkdir below says what is wrong
  std::filesystem::create_directories(leaf.parent_path(), ignored);
  if (mkdir(leaf.c_str(), 0700) != 0 && errno != EEXIST) {
    Fail(directory, "cannot make the settings directory", errno);
  }
  UnfinishedFile::FlushDirectoryOf(leaf.string());
}

bool Exists(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

bool HoldsBytes(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && status.st_size > 0;
}

// What is left where a store was, in the words of a message; empty when nothing is.
std::string Remnant(const std::string& path) {
  if (HoldsBytes(path + "-wal")) return "the log of its last changes";
  for (const std::string& file : {SettingsWitness::PathFor(path), SettingsFile::CopyOf(path)}) {
    if (Exists(file)) return file;
  }
  return std::string();
}

void MakeStore(const std::string& path) {
  const std::string remnant = Remnant(path);
  // It may be that of a store which another process has made in this moment.
  if (!remnant.empty() && access(path.c_str(), F_OK) != 0) {
    throw SettingsFailure(path + ": is missing, but " + remnant + " is still there");
  }
  UnfinishedFile file(path, SettingsFile::kCompanions);
  SettingsFile::Fill(file, {}, 0, false);
  file.MoveIntoPlace();  // else another process did so first, and its store stands
}

void CheckStore(const std::string& path, const struct stat& status) {
  if (!S_ISREG(status.st_mode)) {
    throw SettingsFailure(path + ": is not a regular file");
  }
  if (status.st_size == 0) {
    throw SettingsFailure(path + ": is empty, which a settings store never is");
  }
  if ((status.st_mode & 077) != 0 && chmod(path.c_str(), 0600) != 0) {
    Fail(path, "cannot be closed to other users", errno);
  }
}

}  // namespace

std::string SettingsFile::PathOf(const std::string& domain) {
  return tevra::core::PlatformConfig::Get().GetString(kDirectory) + "/" + domain + ".db";
}

void SettingsFile::Prepare(const std::string& path) {
  try {
    MakeDirectory(UnfinishedFile::DirectoryOf(path));
    UnfinishedFile::RemoveRemains(path, kCompanions);
    UnfinishedFile::RemoveRemains(SettingsWitness::PathFor(path));
    UnfinishedFile::RemoveRemains(CopyOf(path), kCompanions);
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
      if (errno != ENOENT) Fail(path, "cannot be read", errno);
      MakeStore(path);
      if (stat(path.c_str(), &status) != 0) Fail(path, "cannot be read", errno);
    }
    CheckStore(path, status);
  } catch (const std::system_error& failure) {
    throw SettingsFailure(path + ": " + failure.what());
  }
}

bool SettingsFile::HasTraces(const std::string& path) {
  return Exists(path) || !Remnant(path).empty();
}

void SettingsFile::Fill(UnfinishedFile& file, const std::vector<SettingsRecord>& records,
                        int64_t change, bool marked) {
  {
    SqliteFile database(file.Name(), SqliteFile::Access::kShared);
    // No one knows the file yet: one flush at the end is enough.
    database.Execute("PRAGMA synchronous=OFF");
    database.Execute("PRAGMA journal_mode=WAL");
    database.Execute("BEGIN");
    SettingsFormat::Create(database, records, change, marked);
    database.Execute("COMMIT");
    // Said aloud: what fails when a file is closed is not reported.
    database.Execute("PRAGMA wal_checkpoint(TRUNCATE)");
    database.RemoveLogOnClose();
  }
  if (fsync(file.get()) != 0) Fail(file.Name(), "cannot be flushed", errno);
}

}  // namespace krand::core
