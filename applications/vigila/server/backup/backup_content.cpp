#include "vigila/server/backup/backup_content.h"

#include <algorithm>

#include "vigila/contract/limits.h"
#include "vigila/model/user.h"

namespace vigila::server {
namespace {

using tevra::core::SecretText;

constexpr char kAccount = 'a';
constexpr char kAccountWithPassword = 'A';
constexpr char kHistory = 'h';
constexpr char kPhrase = 'p';
constexpr char kRule = 'r';

// Writes nothing until it has a buffer, and counts what it would write.
class Writer final {
 public:
  Writer() = default;
  explicit Writer(SecretText& buffer) : buffer_(&buffer) {}
  size_t Size() const { return size_; }

  void Letter(char letter) { Put(&letter, 1); }
  void Number(uint32_t number) {
    char bytes[4];
    for (size_t i = 4; i-- > 0; number >>= 8) bytes[i] = static_cast<char>(number & 0xff);
    Put(bytes, sizeof(bytes));
  }
  void Text(std::string_view text) {
    Number(static_cast<uint32_t>(text.size()));
    Put(text.data(), text.size());
  }

 private:
  void Put(const char* bytes, size_t count) {
    if (buffer_ != nullptr) std::copy_n(bytes, count, buffer_->Data() + size_);
    size_ += count;
  }

  SecretText* const buffer_ = nullptr;
  size_t size_ = 0;
};

// Once a read has failed, all others do.
class Reader final {
 public:
  explicit Reader(std::string_view bytes) : rest_(bytes) {}
  bool AtEnd() const { return rest_.empty(); }
  bool HasFailed() const { return failed_; }
  void Fail() { failed_ = true; }

  char Letter() {
    const std::string_view letter = Take(1);
    return letter.empty() ? '\0' : letter[0];
  }
  uint32_t Number() {
    uint32_t number = 0;
    for (const char byte : Take(4)) number = number << 8 | static_cast<unsigned char>(byte);
    return number;
  }
  std::string_view Text() { return Take(Number()); }
  // Of a key in the settings, which is a C text.
  std::string Key() {
    const std::string_view key = Text();
    if (key.find('\0') != std::string_view::npos) Fail();
    return std::string(key);
  }

 private:
  std::string_view Take(size_t count) {
    if (count > rest_.size()) failed_ = true;
    if (failed_) return {};
    const std::string_view taken = rest_.substr(0, count);
    rest_.remove_prefix(count);
    return taken;
  }

  std::string_view rest_;
  bool failed_ = false;
};

void Write(const BackupContent& content, Writer& to) {
  for (const auto& [name, account] : content.accounts) {
    to.Letter(account.password ? kAccountWithPassword : kAccount);
    to.Text(name);
    to.Number(static_cast<uint32_t>(account.group));
    to.Number(account.password_time);
    to.Number(account.bad_password_time);
    to.Number(account.disabled_time);
    to.Number(account.failed_attempts);
    if (account.password) to.Text(*account.password);
  }
  for (const auto& [name, passwords] : content.histories) {
    to.Letter(kHistory);
    to.Text(name);
    to.Number(static_cast<uint32_t>(passwords.size()));
    for (const std::string_view password : passwords) to.Text(password);
  }
  for (const auto& [id, passphrase] : content.passphrases) {
    to.Letter(kPhrase);
    to.Text(id);
    to.Text(passphrase.alias);
    to.Text(passphrase.phrase);
  }
  for (const auto& [path, rule] : content.rules) {
    to.Letter(kRule);
    to.Text(path);
    to.Text(rule);
  }
}

BackupContent::Account ReadAccount(Reader& from, bool with_password) {
  BackupContent::Account account;
  account.group = static_cast<int32_t>(from.Number());
  account.password_time = from.Number();
  account.bad_password_time = from.Number();
  account.disabled_time = from.Number();
  account.failed_attempts = from.Number();
  if (with_password) account.password = from.Text();
  // No password is stored as none, never as the empty one.
  if (account.password && account.password->empty()) from.Fail();
  return account;
}

std::vector<std::string_view> ReadHistory(Reader& from) {
  std::vector<std::string_view> passwords;
  for (uint32_t left = from.Number(); left > 0 && !from.HasFailed(); --left) {
    passwords.push_back(from.Text());
  }
  return passwords;
}

BackupContent::Phrase ReadPhrase(Reader& from) {
  std::string alias(from.Text());
  return {std::move(alias), from.Text()};
}

// False for a letter that begins no record, and for a second record of one key.
bool ReadRecord(Reader& from, BackupContent& content) {
  const char letter = from.Letter();
  const std::string key = from.Key();
  switch (letter) {
    case kAccount:
    case kAccountWithPassword:
      return content.accounts.emplace(key, ReadAccount(from, letter == kAccountWithPassword))
          .second;
    case kHistory:
      return content.histories.emplace(key, ReadHistory(from)).second;
    case kPhrase:
      return content.passphrases.emplace(key, ReadPhrase(from)).second;
    case kRule:
      return content.rules.emplace(key, from.Key()).second;
    default:
      return false;
  }
}

}  // namespace

SecretText BackupContent::Encode() const {
  Writer counter;
  Write(*this, counter);
  SecretText bytes(counter.Size());
  Writer writer(bytes);
  Write(*this, writer);
  return bytes;
}

std::optional<BackupContent> BackupContent::Decode(std::string_view bytes) {
  BackupContent content;
  Reader reader(bytes);
  while (!reader.AtEnd()) {
    if (!ReadRecord(reader, content) || reader.HasFailed()) return std::nullopt;
  }
  const bool whole = content.accounts.size() <= contract::kMaxUsers &&
                     content.accounts.contains(model::User::kAnonymousUsername);
  if (!whole) return std::nullopt;
  return content;
}

}  // namespace vigila::server
