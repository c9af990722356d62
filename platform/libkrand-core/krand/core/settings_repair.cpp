#include "krand/core/settings_repair.h"

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <system_error>

#include "krand/core/settings_failure.h"
#include "krand/core/settings_file.h"
#include "krand/core/settings_inspection.h"
#include "krand/core/settings_witness.h"
#include "tevra/osa/unfinished_file.h"

namespace krand::core {

namespace {

using tevra::osa::UnfinishedFile;

void Inspect(const std::string& path, SqliteFile::Access access, SettingsRepair::Finding& finding) {
  SqliteFile file(path, access);
  // One of the first format is upgraded by the next start, or refused by it.
  if (SettingsFormat::VersionOf(file) == SettingsFormat::kFirstVersion) return;
  SettingsInspection found = SettingsInspection::Of(file, SettingsInspection::Keep::kIntactRecords);
  finding.damage = std::move(found.damage);
  finding.change = found.manifest.change;
  finding.marked = found.manifest.marked;
  finding.intact = std::move(found.intact);
}

void AskWitness(const std::string& path, SettingsRepair::Finding& finding) {
  const auto testimony = SettingsWitness(path).Read();
  if (!testimony) return;
  const std::string contradiction =
      testimony->Contradiction({finding.change, 0, {}, finding.marked});
  if (!contradiction.empty()) finding.damage.push_back(contradiction);
}

template <typename Step>
void Try(SettingsRepair::Finding& finding, Step step) {
  try {
    step();
  } catch (const SettingsFailure& failure) {
    finding.damage.push_back(failure.what());
  }
}

std::string TimeText() {
  const time_t now = time(nullptr);
  struct tm parts = {};
  char text[32];
  strftime(text, sizeof(text), "%Y%m%dT%H%M%SZ", gmtime_r(&now, &parts));
  return text;
}

[[noreturn]] void Fail(const std::string& path, const char* what) {
  throw SettingsFailure(path + ": " + what + ": " + strerror(errno));
}

}  // namespace

SettingsRepair::SettingsRepair(const std::string& domain) : path_(SettingsFile::PathOf(domain)) {}

std::string SettingsRepair::PathOf(Source source) const {
  return source == Source::kStore ? path_ : SettingsFile::CopyOf(path_);
}

SettingsRepair::Finding SettingsRepair::Examine(Source source) const {
  const std::string path = PathOf(source);
  Finding finding;
  struct stat status;
  finding.there = stat(path.c_str(), &status) == 0;
  if (!finding.there) {
    finding.damage.push_back("it is missing");
    return finding;
  }
  finding.written = status.st_mtime;
  const bool is_store = source == Source::kStore;
  Try(finding, [&] {
    Inspect(path, is_store ? SqliteFile::Access::kShared : SqliteFile::Access::kAlone, finding);
  });
  if (is_store) Try(finding, [&] { AskWitness(path, finding); });
  return finding;
}

std::string SettingsRepair::PutInForce(const std::vector<SettingsRecord>& records,
                                       bool marked) const {
  int64_t change = std::max(Examine(Source::kStore).change, Examine(Source::kCopy).change);
  const SettingsWitness witness(path_);
  try {
    if (const auto testimony = witness.Read()) change = std::max(change, testimony->change);
  } catch (const SettingsFailure&) {
    // It is written anew.
  }
  ++change;
  try {
    UnfinishedFile file(path_, SettingsFile::kCompanions);
    SettingsFile::Fill(file, records, change, marked);
    const std::string aside = SetAside();
    file.Replace();
    witness.Write({change, marked});
    return aside;
  } catch (const std::system_error& failure) {
    throw SettingsFailure(path_ + ": " + failure.what());
  }
}

// Under two names until the new one takes the first, so that there is a store at every instant. The
// log goes first: with the new store it would be taken for its own.
std::string SettingsRepair::SetAside() const {
  const std::string name = path_ + ".damaged-" + TimeText();
  std::string aside = name;
  for (int i = 2; link(path_.c_str(), aside.c_str()) != 0; ++i) {
    if (errno == ENOENT) return std::string();
    if (errno != EEXIST) Fail(path_, "cannot be set aside");
    aside = name + "-" + std::to_string(i);
  }
  if (rename((path_ + "-wal").c_str(), (aside + "-wal").c_str()) != 0 && errno != ENOENT) {
    Fail(path_ + "-wal", "cannot be set aside");
  }
  unlink((path_ + "-shm").c_str());
  UnfinishedFile::FlushDirectoryOf(path_);
  return aside;
}

}  // namespace krand::core
