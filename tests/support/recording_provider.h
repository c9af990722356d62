#ifndef SUPPORT_RECORDING_PROVIDER_H_
#define SUPPORT_RECORDING_PROVIDER_H_

#include <exception>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

#include "tevra/interfaces/i_security_provider.h"

namespace support {

// A provider that writes down what it is asked, "Authorize(token, path)", and gives the answers it
// was told to give. Any thread may call the operations.
class RecordingProvider : public tevra::interfaces::ISecurityProvider {
 public:
  std::vector<std::string> Calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  void ForgetCalls() {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.clear();
  }

  // Answers; set them before the call.
  std::string text = "answer";
  std::vector<std::string> list;
  bool flag = true;
  int number = 0;
  std::string credentials;
  // Thrown by every operation when set.
  std::exception_ptr failure;

  std::string Authenticate(bool reuse, const std::string& user64,
                           const std::string& password64) override {
    return Record("Authenticate", text, reuse, user64, password64);
  }
  std::string AuthenticateHttp(bool reuse, const std::string& username, const std::string& nonce,
                               const std::string& ha2, bool sess, const std::string& qop,
                               const std::string& cnonce, const std::string& nc,
                               const std::string& response) override {
    return Record("AuthenticateHttp", text, reuse, username, nonce, ha2, sess, qop, cnonce, nc,
                  response);
  }
  std::string AuthenticateWsse(bool reuse, const std::string& username, const std::string& digest,
                               const std::string& nonce, const std::string& created) override {
    return Record("AuthenticateWsse", text, reuse, username, digest, nonce, created);
  }
  void Invalidate(const std::string& name) override { Record("Invalidate", 0, name); }
  bool IsAuthenticated(const std::string& token) override {
    return Record("IsAuthenticated", flag, token);
  }
  bool IsProtected(const std::string& path) const override {
    return Record("IsProtected", flag, path);
  }
  std::vector<std::string> GetAllowedPaths(const std::string& token) const override {
    return Record("GetAllowedPaths", list, token);
  }
  std::vector<std::string> GetAllowedPermissions(const std::string& token) const override {
    return Record("GetAllowedPermissions", list, token);
  }
  std::string GetCredentials(const std::string& token) const override {
    return Record("GetCredentials", credentials, token);
  }
  int GetExpiration(const std::string& name, std::string& expires) const override {
    expires = text;
    return Record("GetExpiration", number, name);
  }
  bool Authorize(const std::string& token, const std::string& path) override {
    return Record("Authorize", flag, token, path);
  }
  bool Logout(const std::string& token) override { return Record("Logout", flag, token); }
  std::string GetNonce() override { return Record("GetNonce", text); }
  std::string GetUsers() const override { return Record("GetUsers", text); }
  int AddUsers(const std::string& json) override { return Record("AddUsers", number, json); }
  int ModifyUsers(const std::string& json) override { return Record("ModifyUsers", number, json); }
  int DeleteUsers(const std::vector<std::string>& names) override {
    return Record("DeleteUsers", number, names);
  }
  int ValidatePassword(const std::string& name, const std::string& current,
                       const std::string& proposed) const override {
    return Record("ValidatePassword", number, name, current, proposed);
  }
  std::string AddPassphrase(const std::string& phrase, const std::string& alias) override {
    return Record("AddPassphrase", text, phrase, alias);
  }
  std::string GetPassphrases() const override { return Record("GetPassphrases", text); }
  std::string GetPassphrase(const std::string& id) const override {
    return Record("GetPassphrase", text, id);
  }
  bool DeletePassphrase(const std::string& id) override {
    return Record("DeletePassphrase", flag, id);
  }

 private:
  static std::string Shown(const std::string& value) { return value; }
  static std::string Shown(bool value) { return value ? "true" : "false"; }
  static std::string Shown(const std::vector<std::string>& values) {
    std::string shown = "[";
    for (const std::string& value : values) shown += "<" + value + ">";
    return shown + "]";
  }

  template <typename Answer, typename... Arguments>
  Answer Record(const std::string& operation, const Answer& answer,
                const Arguments&... arguments) const {
    std::string call = operation + "(";
    [[maybe_unused]] const char* separator = "";
    ((call += separator + Shown(arguments), separator = ", "), ...);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      calls_.push_back(call + ")");
    }
    if (failure) std::rethrow_exception(failure);
    return answer;
  }

  mutable std::mutex mutex_;
  mutable std::vector<std::string> calls_;
};

}  // namespace support

#endif  // SUPPORT_RECORDING_PROVIDER_H_
