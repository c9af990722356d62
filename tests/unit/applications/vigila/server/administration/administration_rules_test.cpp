#include <gtest/gtest.h>

#include <map>
#include <string>

#include "administration_fixture.h"
#include "vigila/server/rule_manager.h"

namespace vigila::server {
namespace {

class AdministrationOfRules : public AdministrationTest {
 protected:
  void SetUp() override {
    AdministrationTest::SetUp();
    SetJpegRule("@operators");
  }
  void SetJpegRule(const std::string& rule) {
    server_.Env().GetRuleManager().SetRules({{"/jpeg*", rule}, {"/rtsp/*", "true"}}, true);
  }
  Json ExplainAccount(const std::string& name, const std::string& path) {
    return Parse(administration_.ExplainAccount(Role(), name, path));
  }
};

TEST_F(AdministrationOfRules, ARefusalIsExplainedByTheRuleAndWhatTheAccountHas) {
  EXPECT_EQ(administration_.ExplainAccount(Role(), "bob", "/jpeg/1"),
            "{\"Code\":0,\"Granted\":false,\"Rule\":{\"Pattern\":\"/jpeg*\",\"Text\":"
            "\"@operators\",\"Changeable\":true},\"User\":\"bob\",\"Group\":8,\"GroupName\":"
            "\"viewers\",\"Permissions\":[\"{00d8dc27-61d1-4b7d-85a8-519efb70d712}\","
            "\"{252ebb4c-d6cf-4f3d-892d-1b0d2431cb7a}\",\"{88049574-465a-4f41-89d4-d6d517e8c218}\","
            "\"{d6f86cee-5c0c-41ce-a91f-b8563a2b94d6}\"],\"OpenTo\":{\"Count\":2,\"Names\":"
            "[{\"Name\":\"admin\"},{\"Name\":\"olga\"}],\"Everyone\":false}}");
}

TEST_F(AdministrationOfRules, AnExplanationAgreesWithTheDecision) {
  const std::map<std::string, std::string> tokens = {
      {"admin", TokenOf("admin")}, {"olga", TokenOf("olga")}, {"bob", TokenOf("bob")}};
  for (const std::string& rule :
       {std::string("true"), std::string("false"), std::string("@admins"), std::string("@managers"),
        std::string("@operators"), std::string("@viewers"), std::string("@kings"),
        std::string("{88049574-465a-4f41-89d4-d6d517e8c218}"),
        std::string("{d6f86cee-5c0c-41ce-a91f-b8563a2b94d6}"), std::string("{nonsense}")}) {
    SetJpegRule(rule);
    for (const std::string& path :
         {std::string("/jpeg"), std::string("/inject.cgi"), std::string("/onvif"),
          std::string("/system"), std::string("/elsewhere"), std::string("")}) {
      for (const auto& [name, token] : tokens) {
        const bool granted = Provider().Authorize(token, path);
        EXPECT_EQ(ExplainAccount(name, path)["Granted"], granted) << rule << path << name;
        EXPECT_EQ(Parse(administration_.ExplainSession(Role(), token, path))["Granted"], granted);
      }
      EXPECT_EQ(ExplainAccount("nobody", path)["Granted"], Provider().Authorize("NO_TOKEN", path));
    }
  }
}

TEST_F(AdministrationOfRules, ATokenWithoutASessionIsJudgedAsTheAnonymousCaller) {
  const Json unknown = Parse(administration_.ExplainSession(Role(), "12345678", "/jpeg/1"));
  EXPECT_FALSE(unknown["Session"]);
  EXPECT_EQ(unknown["User"], "nobody");
  const Json living = Parse(administration_.ExplainSession(Role(), TokenOf("olga"), "/jpeg/1"));
  EXPECT_TRUE(living["Session"]);
  EXPECT_EQ(living["User"], "olga");
  EXPECT_TRUE(living["Granted"]);
}

TEST_F(AdministrationOfRules, OnlyAdministratorsLearnWhoElseMay) {
  EXPECT_FALSE(
      Parse(administration_.ExplainAccount(As("bob"), "bob", "/jpeg/1")).contains("OpenTo"));
  const Caller bob = As("bob");
  EXPECT_FALSE(Parse(administration_.ExplainSession(bob, bob.token, "/jpeg/1")).contains("OpenTo"));
  EXPECT_TRUE(
      Parse(administration_.ExplainAccount(As("admin"), "bob", "/jpeg/1")).contains("OpenTo"));
}

TEST_F(AdministrationOfRules, APathWithoutARuleIsOpenToEveryone) {
  const Json open = ExplainAccount("bob", "/elsewhere");
  EXPECT_TRUE(open["Granted"]);
  EXPECT_TRUE(open["Rule"].is_null());
  EXPECT_TRUE(open["OpenTo"]["Everyone"]);
  EXPECT_EQ(open["OpenTo"]["Count"], 3);
}

TEST_F(AdministrationOfRules, ARuleOfAParentDirectoryNamesTheRuleThatImpliesIt) {
  const Json rule = ExplainAccount("bob", "/halvard-instrument")["Rule"];
  EXPECT_EQ(rule["Pattern"], "/halvard-instrument");
  EXPECT_EQ(rule["Text"], "{00d8dc27-61d1-4b7d-85a8-519efb70d712}");
  EXPECT_EQ(rule["ImpliedBy"], "/halvard-instrument/cgi/*");
  EXPECT_FALSE(rule["Changeable"]);
  EXPECT_FALSE(ExplainAccount("bob", "/inject.cgi")["Rule"].contains("ImpliedBy"));
}

TEST_F(AdministrationOfRules, APathOf64KiBIsExplained) {
  const Json answer = ExplainAccount("bob", "/jpeg" + std::string(65531, '/'));
  EXPECT_EQ(answer["Rule"]["Pattern"], "/jpeg*");
  EXPECT_TRUE(ExplainAccount("bob", std::string(65536, '*'))["Granted"]);
}

TEST_F(AdministrationOfRules, ManyAccountsAreCountedAndSomeNamed) {
  for (int i = 0; i < 30; ++i) Add("more" + std::to_string(i), "morepass", 4);
  const Json open = ExplainAccount("bob", "/jpeg/1")["OpenTo"];
  EXPECT_EQ(open["Count"], 32);
  EXPECT_EQ(open["Names"].size(), 20u);
}

TEST_F(AdministrationOfRules, TheEffectOfARuleIsKnownBeforeItIsSet) {
  TokenOf("bob");
  TokenOf("olga");
  TokenOf("olga");
  const Json tighter = Parse(administration_.GetRuleEffect(Role(), "/jpeg*", "@admins"));
  EXPECT_EQ(tighter["Rule"]["Text"], "@operators");
  EXPECT_EQ(tighter["Loses"], Json::parse("{\"Count\":1,\"Names\":[{\"Name\":\"olga\"}]}"));
  EXPECT_EQ(tighter["Gains"]["Count"], 0);
  EXPECT_EQ(tighter["Sessions"], 2);
  EXPECT_EQ(tighter["OpenTo"]["Count"], 1);
  EXPECT_EQ(tighter["OpenNow"]["Count"], 2);
  const Json wider = Parse(administration_.GetRuleEffect(Role(), "/jpeg*", "true"));
  EXPECT_EQ(wider["Gains"], Json::parse("{\"Count\":1,\"Names\":[{\"Name\":\"bob\"}]}"));
  EXPECT_EQ(wider["Sessions"], 0);
  EXPECT_TRUE(wider["OpenTo"]["Everyone"]);
  EXPECT_FALSE(wider["OpenNow"]["Everyone"]);
  EXPECT_EQ(Parse(administration_.GetRuleEffect(Role(), "/jpeg*", ""))["OpenTo"]["Count"], 0);
  EXPECT_FALSE(Provider().Authorize(TokenOf("bob"), "/jpeg")) << "asking set the rule";
}

TEST_F(AdministrationOfRules, OnlyARuleThatCanBeChangedHasAnEffect) {
  for (const std::string& path : {std::string("/inject.cgi"), std::string("/onvif"),
                                  std::string("/jpeg/1"), std::string(), std::string(65536, '*')}) {
    EXPECT_EQ(administration_.GetRuleEffect(Role(), path, "true"), "{\"Code\":20}") << path;
  }
}

}  // namespace
}  // namespace vigila::server
