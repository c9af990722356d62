#ifndef KRAND_CORE_SETTINGS_FILE_H_
#define KRAND_CORE_SETTINGS_FILE_H_

#include <string>

namespace krand::core {

// The file around a settings database: where it may lie, who may read it, how a new one comes to
// be. Throws SettingsFailure that names the file.
class SettingsFile {
 public:
  // Number in the file's header that tells a settings store from any other database.
  static constexpr int kApplicationId = 0x76676c61;  // "vgla"
  static constexpr int kVersion = 1;
  static constexpr const char* kSchema =
      "CREATE TABLE settings(key BLOB PRIMARY KEY, type INTEGER NOT NULL, value BLOB NOT NULL) "
      "WITHOUT ROWID";

  // Makes sure that a sound-looking regular file of mode 0600 is at `path`. Where nothing is, a new
  // store appears under its name only when it is complete, so that an empty file is always the
  // remains of a damaged store and never the beginning of a new one.
  static void Prepare(const std::string& path);
};

}  // namespace krand::core

#endif  // KRAND_CORE_SETTINGS_FILE_H_
