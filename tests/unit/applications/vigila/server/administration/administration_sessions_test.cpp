#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "administration_fixture.h"
#include "support/change_recorder.h"
#include "vigila/server/session_manager.h"

namespace vigila::server {
namespace {

constexpr int64_t kStart = support::ServerUnderTest::kStart;

TEST_F(AdministrationTest, ASessionIsShownWithAllThatIsKnownOfIt) {
  const std::string token = TokenOf("bob");
  server_.AdvanceSeconds(60);
  ASSERT_TRUE(Provider().IsAuthenticated(token));
  server_.AdvanceSeconds(5);
  const Json session = Sessions()[0];
  EXPECT_EQ(session["User"], "bob");
  EXPECT_EQ(session["Group"], 8);
  EXPECT_EQ(session["GroupName"], "viewers");
  EXPECT_EQ(session["Since"], kStart);
  EXPECT_EQ(session["LastUse"], kStart + 60);
  EXPECT_EQ(session["IdleSeconds"], 5);
  EXPECT_EQ(session["Ends"], kStart + 60 + 1800);
  EXPECT_EQ(session["Scheme"], "password");
  EXPECT_TRUE(session["Source"].is_null());
  EXPECT_FALSE(session["Shared"]);
  EXPECT_FALSE(session["Own"]);
}

TEST_F(AdministrationTest, ASessionsIdentifierStaysAndIsNotItsToken) {
  const std::string token = TokenOf("bob");
  const std::string id = Sessions()[0]["Id"];
  EXPECT_EQ(id.size(), 16u);
  EXPECT_EQ(id.find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_EQ(Sessions()[0]["Id"], id);
  EXPECT_EQ(administration_.GetSessions(Role(), "", "", 0).find(token), std::string::npos);
}

TEST_F(AdministrationTest, TheSameTokenHasAnotherIdentifierNextTime) {
  // The manager draws its tokens; equal ones come from a manager whose device says the same.
  std::set<std::string> ids;
  for (int i = 0; i < 100; ++i) {
    TokenOf("bob");
    for (const Json& session : Sessions()) ids.insert(session["Id"]);
    Provider().Invalidate("bob");
  }
  EXPECT_EQ(ids.size(), 100u);
}

TEST_F(AdministrationTest, TheSchemeOfALogonIsShown) {
  const std::string ha1 = model::User::MD5sum("bob:Varno:bobpass1");
  const std::string nonce = Provider().GetNonce();
  const std::string ha2 = model::User::MD5sum("GET:/");
  ASSERT_TRUE(
      IsToken(Provider().AuthenticateHttp(false, "bob", nonce, ha2, false, "", "", "",
                                          model::User::MD5sum(ha1 + ":" + nonce + ":" + ha2))));
  EXPECT_EQ(Sessions()[0]["Scheme"], "digest");
  Provider().Invalidate("bob");
  Provider().Enroll("bob", ha1, tevra::interfaces::ISecurityProvider::kViewers, true);
  EXPECT_EQ(Sessions()[0]["Scheme"], "unknown");
  EXPECT_TRUE(Sessions()[0]["Shared"]);
}

TEST_F(AdministrationTest, AFrontTellsFromWhereItsSessionIsUsed) {
  const Caller bob = As("bob");
  EXPECT_EQ(administration_.SetSessionSource(bob, "192.0.2.7"), "{\"Code\":0}");
  EXPECT_EQ(Sessions()[0]["Source"], "192.0.2.7");
  EXPECT_EQ(administration_.SetSessionSource(bob, std::string(128, 's')), "{\"Code\":0}");
  EXPECT_EQ(Sessions()[0]["Source"], std::string(128, 's'));
  EXPECT_EQ(administration_.SetSessionSource(bob, std::string(129, 's')), "{\"Code\":12}");
  EXPECT_EQ(administration_.SetSessionSource(bob, "\xff"), "{\"Code\":12}");
  EXPECT_EQ(Sessions()[0]["Source"], std::string(128, 's'));
  EXPECT_EQ(administration_.SetSessionSource(bob, ""), "{\"Code\":0}");
  EXPECT_TRUE(Sessions()[0]["Source"].is_null());
}

TEST_F(AdministrationTest, APersonSeesItsOwnSessionsAndWhichOneAsks) {
  const Caller bob = As("bob");
  TokenOf("bob");
  TokenOf("olga");
  const Json sessions = Parse(administration_.GetSessions(bob, "bob", "", 0))["Sessions"];
  ASSERT_EQ(sessions.size(), 2u);
  int own = 0;
  for (const Json& session : sessions) {
    EXPECT_EQ(session["User"], "bob");
    own += session["Own"] ? 1 : 0;
  }
  EXPECT_EQ(own, 1);
}

TEST_F(AdministrationTest, EndingASessionEndsThatOneAndTellsTheClients) {
  support::ChangeRecorder changes;
  changes.Attach(Provider());
  const std::string first = TokenOf("bob");
  const std::string second = TokenOf("bob");
  EXPECT_EQ(administration_.EndSession(Role(), IdOf(first, "bob")), "{\"Code\":0}");
  EXPECT_FALSE(Lives(first));
  EXPECT_TRUE(Lives(second));
  EXPECT_EQ(changes.Values(), (std::vector<bool>{false}));
  Provider().RemoveChangeListeners(&changes);
}

// Who keeps answers by token must learn which of them are stale.
TEST_F(AdministrationTest, WhateverEndsASessionTellsItsToken) {
  struct Tokens {
    void OnEnd(const std::string& token) { tokens.push_back(token); }
    std::vector<std::string> Take() { return std::exchange(tokens, {}); }
    std::vector<std::string> tokens;
  } ended;
  using Listener =
      tevra::core::VoidObjectMethodDelegate1<Tokens, void (Tokens::*)(const std::string&),
                                             std::string>;
  Provider().AddSessionEndListener(std::make_unique<Listener>(&ended, &Tokens::OnEnd));
  std::string token = TokenOf("bob");
  administration_.EndSession(Role(), IdOf(token, "bob"));
  EXPECT_EQ(ended.Take(), std::vector<std::string>{token});
  const Caller own = As("bob");
  token = TokenOf("bob");
  administration_.EndSessions(own, "bob", true);
  EXPECT_EQ(ended.Take(), std::vector<std::string>{token});
  administration_.ChangePassword(own, "bobpass1", "bobpass1");
  EXPECT_TRUE(ended.Take().empty());
  Provider().RemoveSessionEndListeners(&ended);
}

TEST_F(AdministrationTest, ASessionThatDoesNotLiveIsNamedByACode) {
  support::ChangeRecorder changes;
  changes.Attach(Provider());
  const std::string token = TokenOf("bob");
  const std::string id = IdOf(token, "bob");
  Provider().Logout(token);
  const std::string living = TokenOf("bob");
  for (const std::string& unknown : {id, living, std::string(), std::string("0000000000000000"),
                                     std::string("0123456789ABCDEF"), std::string(65536, '0')}) {
    EXPECT_EQ(administration_.EndSession(Role(), unknown), "{\"Code\":19}") << unknown;
  }
  EXPECT_TRUE(Lives(living));
  EXPECT_TRUE(changes.Values().empty());
  Provider().RemoveChangeListeners(&changes);
}

TEST_F(AdministrationTest, APersonEndsNoOneElsesSession) {
  const std::string olga = TokenOf("olga");
  const std::string id = IdOf(olga, "olga");
  EXPECT_EQ(administration_.EndSession(As("bob"), id), "{\"Code\":19}");
  EXPECT_TRUE(Lives(olga));
  EXPECT_EQ(administration_.EndSession(As("olga"), id), "{\"Code\":0}");
  EXPECT_FALSE(Lives(olga));
}

TEST_F(AdministrationTest, APersonEndsItsOtherSessions) {
  const Caller own = As("bob");
  const std::string other = TokenOf("bob");
  const std::string olga = TokenOf("olga");
  EXPECT_EQ(administration_.EndSessions(own, "bob", true), "{\"Code\":0,\"Ended\":1}");
  EXPECT_TRUE(Lives(own.token));
  EXPECT_FALSE(Lives(other));
  EXPECT_TRUE(Lives(olga));
  EXPECT_EQ(administration_.EndSessions(own, "bob", false), "{\"Code\":0,\"Ended\":1}");
  EXPECT_FALSE(Lives(own.token));
}

TEST_F(AdministrationTest, AnAdministratorEndsEverybodysSessionsButItsOwn) {
  const Caller admin = As("admin");
  const std::string bob = TokenOf("bob");
  TokenOf("olga");
  EXPECT_EQ(administration_.EndSessions(admin, "*", true), "{\"Code\":0,\"Ended\":2}");
  EXPECT_TRUE(Lives(admin.token));
  EXPECT_FALSE(Lives(bob));
  EXPECT_EQ(administration_.EndSessions(admin, "*", true), "{\"Code\":0,\"Ended\":0}");
}

// Sessions of many users, walked in pages of the longest size, while some end.
TEST_F(AdministrationTest, TenThousandSessionsAreListedInPages) {
  SessionManager& sessions = server_.Env().GetSessionManager();
  const auto add = [&](const std::string& user) {
    return sessions.Enroll(
        new model::User(user, "", tevra::interfaces::ISecurityProvider::kViewers, {}));
  };
  std::vector<std::string> tokens;
  for (int i = 0; i < 10000; ++i) tokens.push_back(add("user" + std::to_string(i % 7)));
  std::set<std::string> seen;
  std::vector<std::string> users;
  std::string cursor;
  size_t pages = 0;
  do {
    const Json page = Parse(administration_.GetSessions(Role(), "", cursor, 4000000000u));
    ASSERT_EQ(page["Code"], 0);
    EXPECT_EQ(page["Total"], 10000u - pages);
    ASSERT_LE(page["Sessions"].size(), 200u);
    for (const Json& session : page["Sessions"]) {
      EXPECT_TRUE(seen.insert(session["Id"]).second) << "shown twice";
      if (users.empty() || users.back() != session["User"]) users.push_back(session["User"]);
    }
    cursor = page.value("Next", "");
    // The very session behind which the next page begins has ended when it is asked for.
    ASSERT_EQ(CodeOf(administration_.EndSession(Role(), page["Sessions"].back()["Id"])), 0);
    ++pages;
  } while (!cursor.empty());
  EXPECT_EQ(seen.size(), 10000u);
  EXPECT_EQ(pages, 50u);
  EXPECT_EQ(users.size(), 7u) << "in the order of the users";
  EXPECT_EQ(Parse(administration_.GetSessions(Role(), "user3", "", 1))["Total"].get<int>() > 1400,
            true);
}

}  // namespace
}  // namespace vigila::server
