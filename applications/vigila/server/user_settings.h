#ifndef VIGILA_SERVER_USER_SETTINGS_H_
#define VIGILA_SERVER_USER_SETTINGS_H_

#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tevra/osa/exception.h"

namespace vigila::server {

// The user store's view of the settings: its keys, and reads and writes that tell an error from a
// missing value. Every failure writes one Error line with key and status, then throws
// tevra::osa::Exception with the same text. Any thread.
class UserSettings {
 public:
  static constexpr std::string_view kUserPrefix = "user.";
  static constexpr std::string_view kHistoryPrefix = "oldPasswords.";
  static constexpr std::string_view kPhrasePrefix = "phrase.";

  // A value that is there and is not what its key promises: of another type, or no text of one. The
  // others can be used as if it were alone.
  class Malformed : public tevra::osa::Exception {
   public:
    explicit Malformed(const std::string& text) : Exception("%s", text.c_str()) {}
  };

  // Keys are C texts, so a name with a zero byte would share another name's key: it throws.
  static std::string Key(std::string_view prefix, const std::string& name);

  // In byte order.
  static std::vector<std::string> Keys(std::string_view prefix);
  static bool Exists(const std::string& key);
  static std::optional<std::string> ReadJson(const std::string& key);
  // The value under `key` as a T, which is built of its text; nothing when the key has no value. A
  // value that is no T is logged and throws Malformed with the key in the text.
  template <typename T>
  static std::optional<T> ReadRecord(const std::string& key) {
    const std::optional<std::string> json = ReadJson(key);
    if (!json.has_value()) return std::nullopt;
    try {
      return T(*json);
    } catch (const std::exception& error) {
      ThrowMalformed(key, error);
    }
  }
  static void WriteJson(const std::string& key, const std::string& text);
  static void WriteText(const std::string& key, const std::string& text);
  // Empty when there is no such key.
  static std::vector<std::string> ReadTexts(const std::string& key);
  static void WriteTexts(const std::string& key, const std::vector<std::string>& texts);
  static void Delete(const std::string& key);

  // What the settings hold is an administrator; from then on they never go without one.
  static void NoteAdministrator();
  static bool HadAdministrator();
  // Returns when damage to the store can no longer undo what was written. A failure is logged: what
  // was written is written, and the settings try again by themselves.
  static void Settle();

  // The writes of one thread until Commit become durable together; without Commit, none of them.
  class Transaction {
   public:
    Transaction();
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void Commit();

   private:
    bool open_ = true;
  };

 private:
  [[noreturn]] static void ThrowMalformed(const std::string& key, const std::exception& error);
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_USER_SETTINGS_H_
