#ifndef SUPPORT_FAKE_AUTH_SERVICE_H_
#define SUPPORT_FAKE_AUTH_SERVICE_H_

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "vigila-gateway/auth/auth_service.h"
#include "vigila/contract/result_tokens.h"

// A service in memory: sessions, protected paths and who may reach them, and the answer to the next
// logon. Unreachable, it answers as the client library does then, false and empty, and counts it.
class FakeAuthService : public vigila::gateway::AuthService {
 public:
  bool IsProtected(const std::string& path) override {
    ++questions;
    if (granted_from_memory) return access.count(path) != 0;
    return Answers() && access.count(path) != 0;
  }
  bool Authorize(const std::string& token, const std::string& path) override {
    ++questions;
    authorized.emplace_back(token, path);
    if (granted_from_memory) return true;
    if (!Answers()) return false;
    const auto found = access.find(path);
    if (found == access.end()) return true;
    const auto session = sessions.find(token);
    return session != sessions.end() && found->second.count(session->second) != 0;
  }
  std::string LogOnWithPassword(const std::string& username, const std::string& password) override {
    passwords.emplace_back(username, password);
    return Answer();
  }
  std::string LogOnWithDigest(const vigila::gateway::DigestLogon& logon) override {
    digests.push_back(logon);
    return Answer();
  }
  std::string LogOnWithWsse(const vigila::gateway::WsseLogon& logon) override {
    wsse.push_back(logon);
    return Answer();
  }
  bool Logout(const std::string& token) override {
    if (!Answers()) return false;
    sessions.erase(token);
    return true;
  }
  std::string GetNonce() override {
    if (!Answers()) return "";
    return "nonce" + std::to_string(++nonces);
  }
  std::string GetUser(const std::string& token) override {
    const auto session = sessions.find(token);
    return Answers() && session != sessions.end() ? session->second : "";
  }
  std::vector<std::string> GetPermissions(const std::string&) override {
    return Answers() ? permissions : std::vector<std::string>();
  }

  bool IsReachable() override { return reachable; }
  vigila::gateway::ServiceCounts Counts() const override { return counts; }

  bool reachable = true;
  bool granted_from_memory = false;  // every token and path
  vigila::gateway::ServiceCounts counts;
  std::map<std::string, std::set<std::string>> access;  // protected path, users let in
  std::map<std::string, std::string> sessions;          // token, user
  std::string logon_answer = "NO_TOKEN";
  std::vector<std::string> permissions;

  int questions = 0;
  int nonces = 0;
  std::vector<std::pair<std::string, std::string>> authorized;
  std::vector<std::pair<std::string, std::string>> passwords;
  std::vector<vigila::gateway::DigestLogon> digests;
  std::vector<vigila::gateway::WsseLogon> wsse;

 private:
  bool Answers() {
    if (!reachable) ++counts.failures;
    return reachable;
  }
  std::string Answer() { return Answers() ? logon_answer : ""; }
};

#endif  // SUPPORT_FAKE_AUTH_SERVICE_H_
