// What administrators see and do on a running device.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/device_with_accounts.h"

namespace {

using support::DeviceWithAccounts;
using support::Finished;
using Json = nlohmann::json;

class AdministeredDevice : public testing::Test {
 protected:
  void SetUp() override {
    device_.device.Set("Applications/vigila", "password_policy", "true");
    ASSERT_TRUE(device_.Start()) << device_.device.Log();
  }
  Finished Ctl(const std::vector<std::string>& arguments) { return device_.device.Ctl(arguments); }
  Json Answer(std::vector<std::string> arguments) {
    arguments.push_back("--json");
    return Json::parse(Ctl(arguments).out);
  }
  Finished Logon(const std::string& name, const std::string& password) {
    return device_.device.CtlWithSecret(password, {"login", name});
  }
  std::string TokenOf(const std::string& name) {
    const Finished end = Logon(name, DeviceWithAccounts::PasswordOf(name));
    EXPECT_EQ(end.exit_code, 0) << end.err;
    return end.out.substr(0, 8);
  }
  static void Expect(const Finished& end, int exit_code, const std::string& out,
                     const std::string& err = "") {
    EXPECT_EQ(end.exit_code, exit_code) << end.out << end.err;
    EXPECT_EQ(end.out, out);
    EXPECT_EQ(end.err, err);
  }

  DeviceWithAccounts device_;
};

TEST_F(AdministeredDevice, ALockedAccountIsSeenUnlockedAndKeepsItsPassword) {
  // A wrong one that comes within the delay behind the first is refused and not counted.
  for (int i = 0; !Answer({"user", "list"})["Users"][2]["Locked"].get<bool>(); ++i) {
    ASSERT_LT(i, 100000);
    Logon("view", "wrong");
  }
  const Finished listed = Ctl({"user", "list"});
  EXPECT_NE(listed.out.find("view    viewers  locked (3 wrong)  in "), std::string::npos)
      << listed.out;
  Expect(Ctl({"user", "unlock", "view"}), 0, "Unlocked view.\n");
  Expect(Ctl({"user", "unlock", "view"}), 0, "view was not locked.\n");
  TokenOf("view");
}

TEST_F(AdministeredDevice, SessionsAreListedAndEndedByTheirIdentifier) {
  const std::string first = TokenOf("view");
  const std::string second = TokenOf("view");
  const Json sessions = Answer({"session", "list", "--user", "view"})["Sessions"];
  ASSERT_EQ(sessions.size(), 2u);
  const std::string id = sessions[0]["Id"];
  const Finished listed = Ctl({"session", "list"});
  EXPECT_EQ(
      listed.out.rfind("USER  ID                SINCE             IDLE  HOW       FROM\nview  ", 0),
      0u)
      << listed.out;
  EXPECT_NE(listed.out.find("view  " + id + "  "), std::string::npos) << listed.out;
  EXPECT_EQ(listed.out.find(first), std::string::npos) << "a token is shown";
  Expect(Ctl({"session", "end", id}), 0, "Ended the session " + id + ".\n");
  EXPECT_EQ(Ctl({"whoami", first}).exit_code + Ctl({"whoami", second}).exit_code, 1);
  Expect(Ctl({"session", "end", id}), 1, "",
         "vigilactl: There is no session \"" + id +
             "\": \"vigilactl session list\" shows those that live.\n");
  Expect(Ctl({"session", "end", "--user", "view"}), 0, "Ended 1 session of view.\n");
  EXPECT_EQ(Ctl({"session", "end"}).exit_code, 2);
  EXPECT_EQ(Ctl({"session", "end", id, "--user", "view"}).exit_code, 2);
}

TEST_F(AdministeredDevice, ARefusalIsExplained) {
  ASSERT_TRUE(device_.Add("olga", "operators"));
  ASSERT_EQ(Ctl({"rule", "set", "/jpeg*", "@operators"}).exit_code, 0);
  Expect(Ctl({"explain", "view", "/jpeg/1"}), 1,
         "refused: rule \"/jpeg*\" = \"@operators\" (operators and above); view is in viewers. "
         "Open to: admin, olga.\n");
  Expect(Ctl({"explain", "olga", "/jpeg/1"}), 0,
         "granted: rule \"/jpeg*\" = \"@operators\" (operators and above); olga is in operators. "
         "Open to: admin, olga.\n");
  Expect(Ctl({"explain", "nobody", "/jpeg/1"}), 1,
         "refused: rule \"/jpeg*\" = \"@operators\" (operators and above); without a session the "
         "account nobody counts. Open to: admin, olga.\n");
  Expect(Ctl({"explain", "view", "/elsewhere"}), 0,
         "granted: no rule governs this path, so it is open to everyone.\n");
  Expect(Ctl({"explain", "--session", TokenOf("olga"), "/jpeg/1"}), 0,
         "granted: rule \"/jpeg*\" = \"@operators\" (operators and above); olga is in operators. "
         "Open to: admin, olga.\n");
  EXPECT_EQ(Ctl({"explain", "--session", "12345678", "/jpeg/1"}).err,
            "vigilactl: note: the token belongs to no living session\n");
  Expect(Ctl({"explain", "carl", "/jpeg/1"}), 1, "",
         "vigilactl: There is no user \"carl\": \"vigilactl user list\" shows all.\n");
  EXPECT_EQ(Ctl({"explain", "view"}).exit_code, 2);
  EXPECT_EQ(Answer({"explain", "view", "/jpeg/1"})["Rule"]["Text"], "@operators");
}

TEST_F(AdministeredDevice, AdministrationIsDoneOnBehalfOfTheSessionInTheEnvironment) {
  const std::string viewer = TokenOf("view");
  const auto as = [this](const std::string& token, const std::vector<std::string>& arguments) {
    support::ProgramOptions options;
    options.environment["VIGILA_TOKEN"] = token;
    return device_.device.Ctl(arguments, options);
  };
  EXPECT_EQ(as(TokenOf("admin"), {"user", "list"}).out.rfind("NAME", 0), 0u);
  for (const std::vector<std::string>& verb : {std::vector<std::string>{"user", "list"},
                                               {"user", "unlock", "view"},
                                               {"session", "list"},
                                               {"session", "end", "--user", "admin"},
                                               {"explain", "admin", "/jpeg/1"},
                                               {"rule", "effect", "/jpeg*", "true"}}) {
    Expect(as(viewer, verb), 4, "",
           "vigilactl: not permitted: this needs the role 'admin' or an administrator's session "
           "(the session in VIGILA_TOKEN was judged)\n");
  }
  Expect(as(viewer, {"explain", "view", "/jpeg/1"}), 0,
         "granted: rule \"/jpeg*\" = \"{88049574-465a-4f41-89d4-d6d517e8c218}\" (who may: read "
         "media); view is in viewers.\n");
  EXPECT_EQ(as(viewer, {"session", "list", "--user", "view"}).exit_code, 0);
  EXPECT_EQ(as("12345678", {"user", "list"}).exit_code, 4) << "a session that has ended";
}

TEST_F(AdministeredDevice, TheEffectOfARuleIsShownBeforeItIsSet) {
  TokenOf("view");
  Expect(Ctl({"rule", "effect", "/jpeg*", "@operators"}), 0,
         "Open now        admin, view\n"
         "Open then       admin\n"
         "Gain access     no one\n"
         "Lose access     view\n"
         "Their sessions  1\n");
  Expect(Ctl({"rule", "get", "/jpeg*"}), 0, "{88049574-465a-4f41-89d4-d6d517e8c218}\n");
  Expect(Ctl({"rule", "effect", "/inject.cgi", "true"}), 1, "",
         "vigilactl: The rule of \"/inject.cgi\" cannot be changed: \"vigilactl rule list\" shows "
         "which can.\n");
}

}  // namespace
