#ifndef VIGILA_SERVER_ADMINISTRATION_FIXTURE_H_
#define VIGILA_SERVER_ADMINISTRATION_FIXTURE_H_

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/provider_environment.h"
#include "vigila/server/administration/administration.h"

namespace vigila::server {

using Json = nlohmann::json;

// Tests of the administration over a server with an administrator "admin" ("adminpass"), an
// operator "olga" ("olgapass") and a viewer "bob" ("bobpass1").
class AdministrationTest : public support::ProviderTest {
 protected:
  using Caller = tevra::interfaces::IAdministration::Caller;

  AdministrationTest() : administration_(server_.Env()) {}
  // With the policy enforced, which holds from the first use of the store.
  void SetUp() override {
    Provider().EnforcePasswordPolicy(true);
    Add("admin", "adminpass", 1);
    Add("olga", "olgapass", 4);
    Add("bob", "bobpass1", 8);
  }

  // Callers as the bus makes them: by their role, and by a token.
  static Caller Role() {
    Caller caller("");
    caller.holds_admin_role = true;
    return caller;
  }
  Caller As(const std::string& name) { return Caller(TokenOf(name)); }
  std::string TokenOf(const std::string& name) {
    return Logon(name, name == "bob" ? "bobpass1" : name + "pass");
  }

  static Json Parse(const std::string& answer) { return Json::parse(answer); }
  static int CodeOf(const std::string& answer) { return Parse(answer)["Code"]; }
  Json Account(const std::string& name) {
    return Parse(administration_.GetAccount(Role(), name))["Account"];
  }
  Json Sessions(const std::string& user = "") {
    return Parse(administration_.GetSessions(Role(), user, "", 0))["Sessions"];
  }
  // The identifier of the session with this token, whose user sees it as its own.
  std::string IdOf(const std::string& token, const std::string& user) {
    const Json page = Parse(administration_.GetSessions(Caller(token), user, "", 0));
    for (const Json& session : page["Sessions"]) {
      if (session["Own"]) return session["Id"];
    }
    return "(none)";
  }
  bool Lives(const std::string& token) { return Provider().GetUser(token, false) != nullptr; }
  void LockOut(const std::string& name) {
    for (int i = 0; i < 3; ++i) {
      server_.AdvanceSeconds(5);
      Logon(name, "wrong password");
    }
  }

  Administration administration_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_ADMINISTRATION_FIXTURE_H_
