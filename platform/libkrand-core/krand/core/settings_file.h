#ifndef KRAND_CORE_SETTINGS_FILE_H_
#define KRAND_CORE_SETTINGS_FILE_H_

#include <span>
#include <string>
#include <vector>

#include "krand/core/settings_format.h"
#include "tevra/osa/unfinished_file.h"

namespace krand::core {

// The file around a settings database: where it may lie, who may read it, how a new one comes to
// be. Throws SettingsFailure that names the file.
class SettingsFile {
 public:
  // What SQLite makes beside a file.
  static constexpr const char* kCompanions[] = {"-journal", "-wal", "-shm"};

  // The file of a domain, where the configuration wants it.
  static std::string PathOf(const std::string& domain);
  static std::string CopyOf(const std::string& path) { return path + ".copy"; }

  // Makes sure that a sound-looking regular file of mode 0600 is at `path`, in a directory that
  // others cannot write. Where nothing is, a new store appears under its name only when it is
  // complete, so that an empty file is always the remains of a damaged store and never the
  // beginning of a new one. Where a log, a witness or a copy is left of a store, no new one is
  // made.
  static void Prepare(const std::string& path);
  // Whether there is a store, or what is left of one.
  static bool HasTraces(const std::string& path);

  // A file that is complete and on the disk, with the records of a store in it.
  static void Fill(tevra::osa::UnfinishedFile& file, const std::vector<SettingsRecord>& records,
                   int64_t change, bool marked);
};

}  // namespace krand::core

#endif  // KRAND_CORE_SETTINGS_FILE_H_
