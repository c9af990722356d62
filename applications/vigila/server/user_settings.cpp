#include "vigila/server/user_settings.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "krand/core/krand_api_exception.h"
#include "krand/core/krand_core.h"
#include "tevra/core/default_sink.h"
#include "tevra/core/logger.h"
#include "tevra/osa/exception.h"

namespace vigila::server {

namespace {

struct FreeText {
  void operator()(char* text) const { std::free(text); }
};
struct FreeArray {
  void operator()(char** array) const { krand_core_free_string_array(array); }
};
using ArrayPointer = std::unique_ptr<char*, FreeArray>;

// Keys and values may hold any bytes, and the text of an exception goes to callers as UTF-8. The
// log does the same by itself.
std::string Printable(const std::string& text) {
  return tevra::core::DefaultSink::Escape(text);
}

void Check(krand_core_status status, const char* what, const std::string& key) {
  if (status == KRAND_CORE_OK) return;
  const krand::core::KrandApiException raw(std::string(what) + " " + key, status);
  tevra::core::Logger::GetLogger("UserMap")->Error("%s", raw.what());
  const std::string text = Printable(raw.what());
  if (status == KRAND_CORE_WRONG_TYPE) throw UserSettings::Malformed(text);
  throw tevra::osa::Exception("%s", text.c_str());
}

}  // namespace

std::string UserSettings::Key(std::string_view prefix, const std::string& name) {
  if (name.find('\0') != std::string::npos) {
    throw tevra::osa::Exception("a name with a zero byte cannot be stored");
  }
  return std::string(prefix) + name;
}

std::vector<std::string> UserSettings::Keys(std::string_view prefix) {
  const std::string text(prefix);
  const ArrayPointer array(krand_core_settings_get_keys_starting_with(text.c_str()));
  if (array == nullptr) Check(KRAND_CORE_IO_ERROR, "cannot list the settings", text + "*");
  std::vector<std::string> keys;
  for (char** key = array.get(); *key != nullptr; ++key) keys.emplace_back(*key);
  return keys;
}

bool UserSettings::Exists(const std::string& key) {
  const int found = krand_core_settings_does_key_exist(key.c_str());
  if (found < 0) Check(KRAND_CORE_IO_ERROR, "cannot look for setting", key);
  return found != 0;
}

std::optional<std::string> UserSettings::ReadJson(const std::string& key) {
  char* raw = nullptr;
  Check(krand_core_settings_get_json_value(key.c_str(), &raw), "cannot read setting", key);
  const std::unique_ptr<char, FreeText> text(raw);
  if (text == nullptr) return std::nullopt;
  return std::string(text.get());
}

void UserSettings::ThrowMalformed(const std::string& key, const std::exception& error) {
  const std::string text = "malformed setting " + key + ": " + error.what();
  tevra::core::Logger::GetLogger("UserMap")->Error("%s", text.c_str());
  throw Malformed(Printable(text));
}

void UserSettings::WriteJson(const std::string& key, const std::string& text) {
  Check(krand_core_settings_set_json_value(key.c_str(), text.c_str()), "cannot write setting", key);
}

void UserSettings::WriteText(const std::string& key, const std::string& text) {
  Check(krand_core_settings_set_string_value(key.c_str(), text.c_str()), "cannot write setting",
        key);
}

std::vector<std::string> UserSettings::ReadTexts(const std::string& key) {
  char** raw = nullptr;
  size_t count = 0;
  Check(krand_core_settings_get_arrayofstring_value(key.c_str(), &raw, &count),
        "cannot read setting", key);
  const ArrayPointer array(raw);
  if (array == nullptr) return {};
  return std::vector<std::string>(raw, raw + count);
}

void UserSettings::WriteTexts(const std::string& key, const std::vector<std::string>& texts) {
  const ArrayPointer array(krand_core_alloc_string_array(texts.size()));
  if (array == nullptr) Check(KRAND_CORE_NO_MEMORY, "cannot write setting", key);
  for (size_t i = 0; i < texts.size(); ++i) {
    array.get()[i] = strdup(texts[i].c_str());
    if (array.get()[i] == nullptr) Check(KRAND_CORE_NO_MEMORY, "cannot write setting", key);
  }
  Check(krand_core_settings_set_arrayofstring_value(key.c_str(), array.get()),
        "cannot write setting", key);
}

void UserSettings::Delete(const std::string& key) {
  Check(krand_core_settings_delete_key(key.c_str()), "cannot delete setting", key);
}

void UserSettings::NoteAdministrator() {
  Check(krand_core_settings_set_mark(), "cannot write the settings",
        krand_core_settings_location());
}

bool UserSettings::HadAdministrator() {
  const int marked = krand_core_settings_has_mark();
  if (marked < 0) {
    Check(KRAND_CORE_IO_ERROR, "cannot read the settings", krand_core_settings_location());
  }
  return marked != 0;
}

void UserSettings::Settle() {
  try {
    Check(krand_core_settings_settle(), "cannot settle", krand_core_settings_location());
  } catch (const tevra::osa::Exception&) {
    // Logged.
  }
}

UserSettings::Transaction::Transaction() {
  Check(krand_core_settings_begin(), "cannot write the settings", krand_core_settings_location());
}

UserSettings::Transaction::~Transaction() {
  if (open_) krand_core_settings_rollback();
}

void UserSettings::Transaction::Commit() {
  open_ = false;  // a commit that fails has rolled back
  Check(krand_core_settings_commit(), "cannot write the settings", krand_core_settings_location());
}

}  // namespace vigila::server
