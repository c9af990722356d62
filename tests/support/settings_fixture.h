#ifndef SUPPORT_SETTINGS_FIXTURE_H_
#define SUPPORT_SETTINGS_FIXTURE_H_

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "krand/core/krand_core.h"
#include "support/platform_fixture.h"
#include "support/settings_faults.h"

namespace support {

// An open, empty settings store, "vigila" unless told otherwise, in a platform of the test's own.
// Closed at the end, with write faults switched off. The accessors throw std::runtime_error on any
// status but KRAND_CORE_OK, so that a test sets up what it thinks it sets up.
class SettingsFixture : public PlatformFixture {
 public:
  explicit SettingsFixture(const std::string& domain = "vigila") : domain_(domain) { Open(); }
  ~SettingsFixture() {
    krand_core_settings_fail_after(-1);
    krand_core_settings_deinit();
  }

  // Where the store lies; its log has "-wal" appended while it is open.
  std::string File() const { return SettingsDir() + "/" + domain_ + ".db"; }

  void Open() { Check(krand_core_settings_init(domain_.c_str()), "open"); }
  void Close() { Check(krand_core_settings_deinit(), "close"); }
  void Reopen() {
    Close();
    Open();
  }

  static void PutJson(const std::string& key, const std::string& text) {
    Check(krand_core_settings_set_json_value(key.c_str(), text.c_str()), key);
  }
  static std::optional<std::string> GetJson(const std::string& key) {
    char* text = nullptr;
    Check(krand_core_settings_get_json_value(key.c_str(), &text), key);
    return Take(text);
  }
  static void PutString(const std::string& key, const std::string& text) {
    Check(krand_core_settings_set_string_value(key.c_str(), text.c_str()), key);
  }
  static std::optional<std::string> GetString(const std::string& key) {
    char* text = nullptr;
    Check(krand_core_settings_get_string_value(key.c_str(), &text), key);
    return Take(text);
  }
  static void PutArray(const std::string& key, const std::vector<std::string>& texts) {
    std::vector<char*> array;
    for (const std::string& text : texts) array.push_back(const_cast<char*>(text.c_str()));
    array.push_back(nullptr);
    Check(krand_core_settings_set_arrayofstring_value(key.c_str(), array.data()), key);
  }
  static std::optional<std::vector<std::string>> GetArray(const std::string& key) {
    char** array = nullptr;
    size_t count = 0;
    Check(krand_core_settings_get_arrayofstring_value(key.c_str(), &array, &count), key);
    if (array == nullptr) return std::nullopt;
    return Take(array);
  }
  static std::vector<std::string> Keys(const std::string& prefix = "") {
    char** keys = krand_core_settings_get_keys_starting_with(prefix.c_str());
    if (keys == nullptr) throw std::runtime_error("settings: cannot list " + prefix);
    return Take(keys);
  }
  static bool Exists(const std::string& key) {
    const int answer = krand_core_settings_does_key_exist(key.c_str());
    if (answer < 0) throw std::runtime_error("settings: cannot look for " + key);
    return answer == 1;
  }
  static void Delete(const std::string& key) {
    Check(krand_core_settings_delete_key(key.c_str()), key);
  }

  // Damages the closed store: overwrites bytes in the middle, or cuts the file.
  void OverwriteFile(std::streamoff offset, const std::string& bytes) const {
    std::fstream stream(File(), std::ios::in | std::ios::out | std::ios::binary);
    stream.seekp(offset);
    stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!stream.flush()) throw std::runtime_error("settings: cannot damage " + File());
  }
  void TruncateFile(uintmax_t size) const { std::filesystem::resize_file(File(), size); }
  // Makes every read and write of the open store fail from now on: a page that was never read
  // before is no page any more. Keys must have been written before.
  void BreakOpenStore() {
    Reopen();  // brings every page into the file and empties the cache
    TruncateFile(100);
  }

 private:
  static void Check(krand_core_status status, const std::string& what) {
    if (status != KRAND_CORE_OK) {
      throw std::runtime_error("settings: " + what + ": status " + std::to_string(status));
    }
  }
  static std::optional<std::string> Take(char* text) {
    if (text == nullptr) return std::nullopt;
    const std::unique_ptr<char, decltype(&free)> owned(text, free);
    return std::string(owned.get());
  }
  static std::vector<std::string> Take(char** array) {
    std::vector<std::string> texts;
    for (char** slot = array; *slot != nullptr; ++slot) texts.emplace_back(*slot);
    krand_core_free_string_array(array);
    return texts;
  }

  const std::string domain_;
};

}  // namespace support

#endif  // SUPPORT_SETTINGS_FIXTURE_H_
