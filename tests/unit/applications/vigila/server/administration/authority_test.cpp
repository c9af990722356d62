// Who may ask what: every operation with every kind of caller.
#include "vigila/server/administration/authority.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "administration_fixture.h"
#include "support/text_thrown_by.h"
#include "tevra/interfaces/access_denied.h"

namespace vigila::server {
namespace {

using tevra::interfaces::AccessDenied;
using tevra::interfaces::IAdministration;
using Ask = std::function<std::string(IAdministration&, const IAdministration::Caller&)>;

enum class Open {
  kAdministrators,
  kOneself,  // about bob, whom it is asked for here
  kSession,  // about whoever's session it is
};

struct Question {
  const char* name;
  Open open;
  Ask ask;
};

std::vector<Question> Questions() {
  using A = IAdministration;
  using C = IAdministration::Caller;
  return {
      {"GetAccounts", Open::kAdministrators,
       [](A& a, const C& c) { return a.GetAccounts(c, "", 0); }},
      {"GetAccount", Open::kOneself, [](A& a, const C& c) { return a.GetAccount(c, "bob"); }},
      {"UnlockAccount", Open::kAdministrators,
       [](A& a, const C& c) { return a.UnlockAccount(c, "bob"); }},
      {"GetSessions of everybody", Open::kAdministrators,
       [](A& a, const C& c) { return a.GetSessions(c, "", "", 0); }},
      {"GetSessions", Open::kOneself,
       [](A& a, const C& c) { return a.GetSessions(c, "bob", "", 0); }},
      {"EndSession", Open::kSession,
       [](A& a, const C& c) { return a.EndSession(c, "0123456789abcdef"); }},
      {"EndSessions of everybody", Open::kAdministrators,
       [](A& a, const C& c) { return a.EndSessions(c, "*", true); }},
      {"EndSessions", Open::kOneself,
       [](A& a, const C& c) { return a.EndSessions(c, "bob", true); }},
      {"ExplainAccount", Open::kOneself,
       [](A& a, const C& c) { return a.ExplainAccount(c, "bob", "/jpeg/1"); }},
      {"ExplainAccount of the anonymous caller", Open::kAdministrators,
       [](A& a, const C& c) { return a.ExplainAccount(c, "nobody", "/jpeg/1"); }},
      {"ExplainSession", Open::kSession,
       [](A& a, const C& c) { return a.ExplainSession(c, c.token, "/jpeg/1"); }},
      {"ExplainSession of another", Open::kAdministrators,
       [](A& a, const C& c) { return a.ExplainSession(c, "12345678", "/jpeg/1"); }},
      {"GetRuleEffect", Open::kAdministrators,
       [](A& a, const C& c) { return a.GetRuleEffect(c, "/jpeg*", "@admins"); }},
      {"CheckPassword", Open::kOneself,
       [](A& a, const C& c) { return a.CheckPassword(c, "bob", "proposed1"); }},
      {"CheckPassword of a new account", Open::kAdministrators,
       [](A& a, const C& c) { return a.CheckPassword(c, "", "proposed1"); }},
      {"StartBackup", Open::kAdministrators,
       [](A& a, const C& c) { return a.StartBackup(c, "a passphrase"); }},
      {"GetBackup", Open::kAdministrators, [](A& a, const C& c) { return a.GetBackup(c, "i", 0); }},
      {"PutBackup", Open::kAdministrators,
       [](A& a, const C& c) { return a.PutBackup(c, "i", 0, "piece"); }},
      {"StartRestore", Open::kAdministrators,
       [](A& a, const C& c) { return a.StartRestore(c, "i", "a passphrase"); }},
      {"GetRestorePlan", Open::kAdministrators,
       [](A& a, const C& c) { return a.GetRestorePlan(c, "i"); }},
      {"CommitRestore", Open::kAdministrators,
       [](A& a, const C& c) { return a.CommitRestore(c, "i"); }},
  };
}

// What needs a session even of a caller with the role admin.
std::vector<Question> QuestionsOfASession() {
  using A = IAdministration;
  using C = IAdministration::Caller;
  return {{"SetSessionSource", Open::kSession,
           [](A& a, const C& c) { return a.SetSessionSource(c, "192.0.2.7"); }},
          {"ChangePassword", Open::kSession,
           [](A& a, const C& c) { return a.ChangePassword(c, "not this", "proposed1"); }}};
}

class AuthorityTest : public AdministrationTest {
 protected:
  bool Admits(const Question& question, const Caller& caller) {
    try {
      EXPECT_TRUE(Parse(question.ask(administration_, caller)).contains("Code")) << question.name;
      return true;
    } catch (const AccessDenied&) {
      return false;
    }
  }
  static Caller WithRole(Caller caller) {
    caller.holds_admin_role = true;
    return caller;
  }
};

TEST_F(AuthorityTest, TheRoleAdminNeedsNoToken) {
  for (const Question& question : Questions()) {
    EXPECT_TRUE(Admits(question, Role())) << question.name;
  }
}

TEST_F(AuthorityTest, TheRoleServiceNeedsAToken) {
  std::vector<Question> questions = Questions();
  for (Question& question : QuestionsOfASession()) questions.push_back(question);
  for (const Question& question : questions) {
    EXPECT_FALSE(Admits(question, Caller(""))) << question.name;
  }
}

TEST_F(AuthorityTest, AnAdministratorsSessionMayAskEverything) {
  for (const Question& question : Questions()) {
    EXPECT_TRUE(Admits(question, As("admin"))) << question.name;
  }
}

TEST_F(AuthorityTest, AnyOtherSessionMayAskAboutItselfAlone) {
  for (const Question& question : Questions()) {
    EXPECT_EQ(Admits(question, As("bob")), question.open != Open::kAdministrators) << question.name;
    EXPECT_EQ(Admits(question, As("olga")), question.open == Open::kSession) << question.name;
  }
}

TEST_F(AuthorityTest, WhatASessionIsNotAllowedItsCallersRoleDoesNotAllow) {
  for (const Question& question : Questions()) {
    EXPECT_EQ(Admits(question, WithRole(As("bob"))), question.open != Open::kAdministrators)
        << question.name;
  }
}

TEST_F(AuthorityTest, ATokenWithoutALivingSessionIsRefusedToEveryRole) {
  const Caller logged_off = As("admin");
  Provider().Logout(logged_off.token);
  const Caller idle = As("admin");
  server_.Advance(1800 * 1000000LL + 1);
  std::vector<Question> questions = Questions();
  for (Question& question : QuestionsOfASession()) questions.push_back(question);
  for (const Caller& caller : {logged_off, idle, Caller("12345678"), Caller("NO_TOKEN"),
                               Caller("_EXPIRED"), Caller(std::string(65536, 'A'))}) {
    for (const Question& question : questions) {
      EXPECT_FALSE(Admits(question, caller)) << question.name;
      EXPECT_FALSE(Admits(question, WithRole(caller))) << question.name;
    }
  }
}

TEST_F(AuthorityTest, WhatIsAboutASessionNeedsOne) {
  for (const Question& question : QuestionsOfASession()) {
    EXPECT_FALSE(Admits(question, Role())) << question.name;
    EXPECT_TRUE(Admits(question, As("bob"))) << question.name;
  }
}

TEST_F(AuthorityTest, AChangeOfGroupEndsWhatASessionMay) {
  const Caller caller = As("olga");
  ASSERT_EQ(0, Provider().ModifyUsers(support::UsersJson({support::UserJson("olga", 1)})));
  EXPECT_FALSE(Admits(Questions()[0], caller));
  EXPECT_TRUE(Admits(Questions()[0], As("olga")));
}

TEST_F(AuthorityTest, AskingNeverRenewsAnIdleTime) {
  std::vector<Question> questions = Questions();
  for (Question& question : QuestionsOfASession()) questions.push_back(question);
  for (const Question& question : questions) {
    const Caller admin = As("admin");
    const Caller bob = As("bob");
    server_.AdvanceSeconds(1800);
    Admits(question, admin);
    Admits(question, bob);
    server_.Advance(1);
    EXPECT_FALSE(Lives(admin.token)) << question.name;
    EXPECT_FALSE(Lives(bob.token)) << question.name;
  }
}

TEST_F(AuthorityTest, ARefusalSaysWhatToDo) {
  const Question question = Questions()[0];
  const auto refusal = [&](const Caller& caller) {
    return support::TextThrownBy([&] { question.ask(administration_, caller); });
  };
  EXPECT_EQ(refusal(Caller("")), "without the role 'admin' the token of a session is needed");
  EXPECT_EQ(refusal(Caller("12345678")), "the token belongs to no living session: log on again");
  EXPECT_EQ(refusal(As("bob")), "this needs the role 'admin' or an administrator's session");
  EXPECT_EQ(support::TextThrownBy([&] { administration_.SetSessionSource(Role(), "x"); }),
            "this is about the caller's own session: give its token");
}

class OpenDevice : public support::ProviderTest {};

// Until there is an administrator no token means anything, so the role decides alone.
TEST_F(OpenDevice, IsAdministeredByTheRoleAlone) {
  Administration administration(server_.Env());
  IAdministration::Caller role("");
  role.holds_admin_role = true;
  EXPECT_NO_THROW(administration.GetAccounts(role, "", 0));
  EXPECT_THROW(administration.GetAccounts("", "", 0), AccessDenied);
  Add("bob", "bobpass1", 8);
  EXPECT_THROW(administration.GetAccount(Logon("bob", "bobpass1"), "bob"), AccessDenied);
}

}  // namespace
}  // namespace vigila::server
