#ifndef SUPPORT_RECORDING_ADMINISTRATION_H_
#define SUPPORT_RECORDING_ADMINISTRATION_H_

#include <exception>
#include <mutex>
#include <string>
#include <vector>

#include "tevra/interfaces/i_administration.h"

namespace support {

// An administration that writes down what it is asked, "GetAccount(token, admin: name)" with
// "service" for a caller without the role admin, and answers `text`. Any thread.
class RecordingAdministration final : public tevra::interfaces::IAdministration {
 public:
  std::string text = "{\"Code\":0}";
  // Thrown by every operation when set.
  std::exception_ptr failure;

  std::vector<std::string> Calls() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }

  std::string GetAccounts(const Caller& caller, const std::string& cursor,
                          uint32_t limit) override {
    return Record("GetAccounts", caller, cursor, std::to_string(limit));
  }
  std::string GetAccount(const Caller& caller, const std::string& name) override {
    return Record("GetAccount", caller, name);
  }
  std::string UnlockAccount(const Caller& caller, const std::string& name) override {
    return Record("UnlockAccount", caller, name);
  }
  std::string GetSessions(const Caller& caller, const std::string& user, const std::string& cursor,
                          uint32_t limit) override {
    return Record("GetSessions", caller, user, cursor, std::to_string(limit));
  }
  std::string EndSession(const Caller& caller, const std::string& id) override {
    return Record("EndSession", caller, id);
  }
  std::string EndSessions(const Caller& caller, const std::string& user, bool spare_own) override {
    return Record("EndSessions", caller, user, spare_own ? "true" : "false");
  }
  std::string SetSessionSource(const Caller& caller, const std::string& source) override {
    return Record("SetSessionSource", caller, source);
  }
  std::string ExplainAccount(const Caller& caller, const std::string& name,
                             const std::string& path) override {
    return Record("ExplainAccount", caller, name, path);
  }
  std::string ExplainSession(const Caller& caller, const std::string& token,
                             const std::string& path) override {
    return Record("ExplainSession", caller, token, path);
  }
  std::string GetRuleEffect(const Caller& caller, const std::string& path,
                            const std::string& rule) override {
    return Record("GetRuleEffect", caller, path, rule);
  }
  std::string CheckPassword(const Caller& caller, const std::string& name,
                            const std::string& proposed) override {
    return Record("CheckPassword", caller, name, proposed);
  }
  std::string ChangePassword(const Caller& caller, const std::string& current,
                             const std::string& proposed) override {
    return Record("ChangePassword", caller, current, proposed);
  }
  std::string StartBackup(const Caller& caller, const std::string& passphrase) override {
    return Record("StartBackup", caller, passphrase);
  }
  std::string GetBackup(const Caller& caller, const std::string& id, uint32_t offset) override {
    return Record("GetBackup", caller, id, std::to_string(offset));
  }
  std::string PutBackup(const Caller& caller, const std::string& id, uint32_t offset,
                        const std::string& piece) override {
    return Record("PutBackup", caller, id, std::to_string(offset), piece);
  }
  std::string StartRestore(const Caller& caller, const std::string& id,
                           const std::string& passphrase) override {
    return Record("StartRestore", caller, id, passphrase);
  }
  std::string GetRestorePlan(const Caller& caller, const std::string& id) override {
    return Record("GetRestorePlan", caller, id);
  }
  std::string CommitRestore(const Caller& caller, const std::string& id) override {
    return Record("CommitRestore", caller, id);
  }

 private:
  template <typename... Texts>
  std::string Record(const std::string& operation, const Caller& caller, const Texts&... texts) {
    std::string call = operation + "(" + caller.token + ", ";
    call += caller.holds_admin_role ? "admin:" : "service:";
    ((call += " " + std::string(texts)), ...);
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      calls_.push_back(call + ")");
    }
    if (failure) std::rethrow_exception(failure);
    return text;
  }

  mutable std::mutex mutex_;
  std::vector<std::string> calls_;
};

// Every operation once, through whatever administration it is; returns what they answered.
inline std::vector<std::string> AskEverything(tevra::interfaces::IAdministration& administration,
                                              const std::string& token) {
  return {administration.GetAccounts(token, "c", 7),
          administration.GetAccount(token, "n"),
          administration.UnlockAccount(token, "n"),
          administration.GetSessions(token, "u", "c", 9),
          administration.EndSession(token, "i"),
          administration.EndSessions(token, "u", true),
          administration.SetSessionSource(token, "s"),
          administration.ExplainAccount(token, "n", "/p"),
          administration.ExplainSession(token, "t", "/p"),
          administration.GetRuleEffect(token, "/p", "@r"),
          administration.CheckPassword(token, "n", "p"),
          administration.ChangePassword(token, "c", "p"),
          administration.StartBackup(token, "p"),
          administration.GetBackup(token, "i", 5),
          administration.PutBackup(token, "i", 6, "b"),
          administration.StartRestore(token, "i", "p"),
          administration.GetRestorePlan(token, "i"),
          administration.CommitRestore(token, "i")};
}
// As the administration at the other end sees it.
inline std::vector<std::string> EverythingAsked(const std::string& caller) {
  return {"GetAccounts(" + caller + ": c 7)",     "GetAccount(" + caller + ": n)",
          "UnlockAccount(" + caller + ": n)",     "GetSessions(" + caller + ": u c 9)",
          "EndSession(" + caller + ": i)",        "EndSessions(" + caller + ": u true)",
          "SetSessionSource(" + caller + ": s)",  "ExplainAccount(" + caller + ": n /p)",
          "ExplainSession(" + caller + ": t /p)", "GetRuleEffect(" + caller + ": /p @r)",
          "CheckPassword(" + caller + ": n p)",   "ChangePassword(" + caller + ": c p)",
          "StartBackup(" + caller + ": p)",       "GetBackup(" + caller + ": i 5)",
          "PutBackup(" + caller + ": i 6 b)",     "StartRestore(" + caller + ": i p)",
          "GetRestorePlan(" + caller + ": i)",    "CommitRestore(" + caller + ": i)"};
}

}  // namespace support

#endif  // SUPPORT_RECORDING_ADMINISTRATION_H_
