#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/daemon_process.h"

namespace {

using support::DaemonProcess;
using support::Finished;

constexpr char kLookAtService[] =
    "; is vigilad running? \"systemctl status vigilad\" and \"journalctl -u vigilad\" tell\n";
constexpr char kReadMedia[] = "{88049574-465a-4f41-89d4-d6d517e8c218}";

// One device for all tests of a suite would let them depend on each other; each has its own.
class Vigilactl : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady) << device_.Log();
  }
  void AddAnnaAndBert() {
    Expect(device_.CtlWithSecret("anna's secret\n", {"user", "add", "anna", "-g", "admins"}), 0,
           "Added anna to admins.\n");
    Expect(device_.CtlWithSecret("bert's secret", {"user", "add", "bert", "-g", "8"}), 0,
           "Added bert to viewers.\n");
  }
  std::string Login(const std::string& name, const std::string& password) {
    const Finished end = device_.CtlWithSecret(password, {"login", name});
    EXPECT_EQ(end.exit_code, 0) << end.err;
    EXPECT_EQ(end.out.size(), 9u) << end.out;
    return end.out.substr(0, end.out.size() - 1);
  }
  static void Expect(const Finished& end, int exit_code, const std::string& out,
                     const std::string& err = "") {
    EXPECT_EQ(end.exit_code, exit_code) << end.out << end.err;
    EXPECT_EQ(end.out, out);
    EXPECT_EQ(end.err, err);
  }
  Finished Add(const std::string& name, const std::string& group, const std::string& password) {
    return device_.CtlWithSecret(password, {"user", "add", name, "--group", group});
  }

  DaemonProcess device_;
};

TEST_F(Vigilactl, ShowsAnEmptyDeviceAsOpenToBeSetUp) {
  Expect(device_.Ctl({"status"}), 0,
         "Service        reachable\n"
         "Transport      direct (" +
             device_.RuntimeDir() +
             ")\n"
             "Administrator  none yet: the device is open to be set up\n"
             "Accounts       1, \"nobody\" included\n");
  Expect(device_.Ctl({"status", "--json"}), 0,
         "{\"Reachable\":true,\"Transport\":\"direct\",\"Address\":\"" + device_.RuntimeDir() +
             "\",\"AdministratorExists\":false,\"Accounts\":1}\n");
  Expect(device_.Ctl({"user", "list"}), 0,
         "NAME    GROUP   STATE  EXPIRES  LAST LOGON  SESSIONS\n"
         "nobody  nobody  ok     -        -           -\n");
}

TEST_F(Vigilactl, ShowsThatAnAdministratorExists) {
  AddAnnaAndBert();
  const Finished end = device_.Ctl({"--json", "status"});
  EXPECT_NE(end.out.find("\"AdministratorExists\":true,\"Accounts\":3"), std::string::npos)
      << end.out;
}

TEST_F(Vigilactl, AddsAndListsAccounts) {
  AddAnnaAndBert();
  Expect(device_.Ctl({"user", "list"}), 0,
         "NAME    GROUP    STATE  EXPIRES  LAST LOGON  SESSIONS\n"
         "anna    admins   ok     never    unknown     0\n"
         "bert    viewers  ok     never    unknown     0\n"
         "nobody  nobody   ok     -        -           -\n");
  const Finished json = device_.Ctl({"user", "list", "--json"});
  EXPECT_EQ(json.exit_code, 0) << json.err;
  EXPECT_EQ(json.out.rfind("{\"Users\":[{\"Name\":\"anna\",\"Group\":1,\"GroupName\":\"admins\","
                           "\"Passwordless\":false,\"Locked\":false,",
                           0),
            0u)
      << json.out;
  EXPECT_NE(json.out.find("{\"Name\":\"nobody\",\"Group\":16,\"GroupName\":\"nobody\","),
            std::string::npos)
      << json.out;
}

TEST_F(Vigilactl, AnswersAnAdditionInJson) {
  Expect(device_.CtlWithSecret("secret", {"user", "add", "anna", "-g", "admins", "--json"}), 0,
         "{\"Name\":\"anna\",\"Group\":1,\"Code\":0}\n");
  Expect(device_.CtlWithSecret("secret", {"user", "add", "anna", "-g", "admins", "--json"}), 1,
         "{\"Name\":\"anna\",\"Group\":1,\"Code\":4,\"Message\":\"The name is taken: it exists "
         "already, occurs twice in the request, or is \\\"nobody\\\".\"}\n");
}

struct RefusedAddition {
  const char* name;
  const char* group;
  const char* password;
  const char* sentence;
};

TEST_F(Vigilactl, HasASentenceForEveryRefusalOfAnAddition) {
  AddAnnaAndBert();
  const std::string longest(32, 'n');
  const std::string too_long(33, 'n');
  const std::string longest_password(64, 'p');
  const std::string too_long_password(65, 'p');
  const RefusedAddition refused[] = {
      {"a", "viewers", "secret", "The name is shorter than 2 bytes."},
      {"", "viewers", "secret", "The name is shorter than 2 bytes."},
      {too_long.c_str(), "viewers", "secret", "The name is longer than 32 bytes."},
      {"a b", "viewers", "secret", "The name contains a blank, \"#\" or \"/\"."},
      {"a#b", "viewers", "secret", "The name contains a blank, \"#\" or \"/\"."},
      {"a/b", "viewers", "secret", "The name contains a blank, \"#\" or \"/\"."},
      {"anna", "viewers", "secret",
       "The name is taken: it exists already, occurs twice in the request, or is \"nobody\"."},
      {"nobody", "viewers", "secret",
       "The name is taken: it exists already, occurs twice in the request, or is \"nobody\"."},
      {"carl", "viewers", "abc", "The password is shorter than 4 bytes."},
      {"carl", "viewers", "", "The password is shorter than 4 bytes."},
      {"carl", "viewers", too_long_password.c_str(), "The password is longer than 64 bytes."},
      {"carl", "3", "secret", "The group is not allowed for this name."},
      {"carl", "17", "secret", "The group is not allowed for this name."},
      {"carl", "4294967295", "secret", "The group is not allowed for this name."},
      {"carl", "0", "secret",
       "Groups 0 and 16 are for \"nobody\" alone, and \"nobody\" has no password to change."},
      {"carl", "nobody", "secret",
       "Groups 0 and 16 are for \"nobody\" alone, and \"nobody\" has no password to change."},
  };
  for (const RefusedAddition& addition : refused) {
    Expect(Add(addition.name, addition.group, addition.password), 1, "",
           std::string("vigilactl: ") + addition.sentence + "\n");
  }
  EXPECT_EQ(Add(longest, "managers", longest_password).exit_code, 0);
  EXPECT_EQ(Add("ab", "operators", "abcd").exit_code, 0);
  Login(longest, longest_password);
}

TEST_F(Vigilactl, RefusesAsUsageWhatNeverReachesTheService) {
  struct Case {
    std::vector<std::string> arguments;
    const char* part;
  };
  const Case cases[] = {
      {{}, "a verb is missing; see \"vigilactl help\""},
      {{"frobnicate"}, "there is no verb \"frobnicate\"; see \"vigilactl help\""},
      {{"user"}, "\"user\" needs a verb: list, unlock, add, modify or delete"},
      {{"user", "lst"}, "there is no verb \"user lst\"; did you mean \"list\"?"},
      {{"user", "status"}, "there is no verb \"user status\"; see \"vigilactl help user\""},
      {{"user", "list", "--jsn"}, "there is no option \"--jsn\"; did you mean \"--json\"?"},
      {{"help", "usr"}, "there is no verb \"usr\"; did you mean \"user\"?"},
      {{"user", "add", "carl"}, "--group"},
      {{"user", "add", "carl", "-g", "kings", "--password-stdin"}, "is no group"},
      {{"user", "add", "carl", "-g", "-1", "--password-stdin"}, ""},
      {{"user", "add", "carl", "-g", "1.5", "--password-stdin"}, "is no group"},
      {{"user", "add", "ca\xffrl", "-g", "viewers", "--password-stdin"}, "not UTF-8"},
      {{"user", "modify", "carl"}, "nothing to change"},
      {{"user", "delete"}, "NAME"},
      {{"logout"}, "VIGILA_TOKEN"},
      {{"whoami"}, "VIGILA_TOKEN"},
      {{"paths"}, "VIGILA_TOKEN"},
      {{"permissions"}, "VIGILA_TOKEN"},
      {{"authorize", "/system"}, "VIGILA_TOKEN"},
      {{"invalidate"}, "--all"},
      {{"invalidate", "anna", "--all"}, "--all"},
      {{"rule", "set", "/jpeg*"}, "RULE"},
      {{"status", "surplus"}, "not expected: surplus; see \"vigilactl help status\""},
  };
  for (const Case& wrong : cases) {
    const Finished end = device_.Ctl(wrong.arguments);
    EXPECT_EQ(end.exit_code, 2) << testing::PrintToString(wrong.arguments) << end.out << end.err;
    EXPECT_NE((end.out + end.err).find(wrong.part), std::string::npos) << end.out << end.err;
  }
}

TEST_F(Vigilactl, AnswersWrongUsageInJsonToo) {
  Expect(device_.Ctl({"user", "lst", "--json"}), 2,
         "{\"Exit\":2,\"Message\":\"there is no verb \\\"user lst\\\"; did you mean "
         "\\\"list\\\"?\"}\n");
  Expect(device_.Ctl({"--json", "user", "add", "carl"}), 2,
         "{\"Exit\":2,\"Message\":\"--group is required; see \\\"vigilactl help user add\\\"\"}\n");
  Expect(device_.Ctl({"help", "usr", "--json"}), 2,
         "{\"Exit\":2,\"Message\":\"there is no verb \\\"usr\\\"; did you mean \\\"user\\\"?\"}\n");
}

TEST_F(Vigilactl, TakesNoPasswordFromTheArgumentList) {
  EXPECT_EQ(device_.Ctl({"login", "anna", "secret"}).exit_code, 2);
  EXPECT_EQ(device_.Ctl({"user", "add", "anna", "-g", "1", "--password=secret"}).exit_code, 2);
  EXPECT_EQ(device_.Ctl({"user", "modify", "anna", "--password=secret"}).exit_code, 2);
}

TEST_F(Vigilactl, RefusesAPasswordThatIsNotUtf8ForAnAccount) {
  Expect(Add("carl", "viewers", "p\xffssword"), 2, "",
         "vigilactl: the password is not UTF-8, and an account's must be\n");
}

TEST_F(Vigilactl, PassesNamesAndPasswordsThatNeedEscaping) {
  const std::string name = "q\"b\\s{}[]\xc3\xa4\t";
  const std::string password("p\"\\\n\0\x01x", 7);
  AddAnnaAndBert();
  EXPECT_EQ(Add(name, "viewers", password + "\n").exit_code, 0);
  Expect(device_.Ctl({"whoami", Login(name, password)}), 0, "q\"b\\s{}[]\xc3\xa4\\x09\n");
  const Finished listed = device_.Ctl({"user", "list"});
  EXPECT_NE(listed.out.find("q\"b\\s{}[]\xc3\xa4\\x09  viewers"), std::string::npos) << listed.out;
  const Finished json = device_.Ctl({"user", "list", "--json"});
  EXPECT_NE(json.out.find("\"q\\\"b\\\\s{}[]\xc3\xa4\\t\""), std::string::npos) << json.out;
}

TEST_F(Vigilactl, DropsOneLineBreakAtTheEndOfAPassword) {
  EXPECT_EQ(Add("carl", "viewers", "secret\n\n").exit_code, 0);
  Login("carl", "secret\n\n");
  EXPECT_EQ(device_.CtlWithSecret("secret\n", {"login", "carl"}).exit_code, 1);
  EXPECT_EQ(Add("dora", "viewers", "secret\r\n").exit_code, 0) << "a file that Windows wrote";
  Login("dora", "secret");
  EXPECT_EQ(Add("emil", "viewers", "secret\r").exit_code, 0);
  Login("emil", "secret\r");
  EXPECT_EQ(device_.CtlWithSecret("secret", {"login", "emil"}).exit_code, 1);
}

TEST_F(Vigilactl, ChangesTheGroupAndKeepsThePassword) {
  AddAnnaAndBert();
  Expect(device_.Ctl({"user", "modify", "bert", "--group", "operators"}), 0, "Changed bert.\n");
  Expect(device_.Ctl({"user", "list"}), 0,
         "NAME    GROUP      STATE  EXPIRES  LAST LOGON  SESSIONS\n"
         "anna    admins     ok     never    unknown     0\n"
         "bert    operators  ok     never    unknown     0\n"
         "nobody  nobody     ok     -        -           -\n");
  Login("bert", "bert's secret");
}

TEST_F(Vigilactl, ChangesThePasswordAndKeepsTheGroup) {
  AddAnnaAndBert();
  Expect(device_.CtlWithSecret("another", {"user", "modify", "bert", "--json"}), 0,
         "{\"Name\":\"bert\",\"Group\":8,\"Code\":0}\n");
  Login("bert", "another");
  Expect(device_.CtlWithSecret("bert's secret", {"login", "bert"}), 1, "",
         "vigilactl: No session: the name or the password is wrong.\n");
}

TEST_F(Vigilactl, HasASentenceForEveryRefusalOfAChange) {
  AddAnnaAndBert();
  Expect(device_.Ctl({"user", "modify", "carl", "-g", "8"}), 1, "",
         "vigilactl: There is no such user.\n");
  Expect(device_.CtlWithSecret("secret", {"user", "modify", "carl"}), 1, "",
         "vigilactl: There is no such user.\n");
  Expect(device_.Ctl({"user", "modify", "anna", "-g", "viewers"}), 1, "",
         "vigilactl: The last administrator must stay, and \"nobody\" cannot be deleted.\n");
  Expect(device_.Ctl({"user", "modify", "nobody", "-g", "admins"}), 1, "",
         "vigilactl: The group is not allowed for this name.\n");
  Expect(device_.CtlWithSecret("abc", {"user", "modify", "bert"}), 1, "",
         "vigilactl: The password is shorter than 4 bytes.\n");
}

TEST_F(Vigilactl, GivesNobodyAGroup) {
  Expect(device_.Ctl({"user", "modify", "nobody", "-g", "viewers"}), 0, "Changed nobody.\n");
  Expect(device_.Ctl({"authorize", "NO_TOKEN", "/jpeg/1"}), 0, "granted\n");
  Expect(device_.Ctl({"user", "modify", "nobody", "-g", "nobody"}), 0, "Changed nobody.\n");
  Expect(device_.Ctl({"authorize", "NO_TOKEN", "/jpeg/1"}), 1, "refused\n");
}

TEST_F(Vigilactl, DeletesAllOfTheNamesOrNone) {
  AddAnnaAndBert();
  Expect(device_.Ctl({"user", "delete", "bert", "nobody"}), 1, "",
         "vigilactl: The last administrator must stay, and \"nobody\" cannot be deleted.\n");
  Expect(device_.Ctl({"user", "delete", "bert", "carl"}), 1, "",
         "vigilactl: There is no such user.\n");
  Expect(device_.Ctl({"user", "delete", "anna", "bert"}), 1, "",
         "vigilactl: The last administrator must stay, and \"nobody\" cannot be deleted.\n");
  Expect(device_.Ctl({"user", "delete", "bert", "--json"}), 0,
         "{\"Names\":[\"bert\"],\"Code\":0}\n");
  Expect(device_.Ctl({"user", "list"}), 0,
         "NAME    GROUP   STATE  EXPIRES  LAST LOGON  SESSIONS\n"
         "anna    admins  ok     never    unknown     0\n"
         "nobody  nobody  ok     -        -           -\n");
}

TEST_F(Vigilactl, OpensAndEndsSessions) {
  AddAnnaAndBert();
  const std::string token = Login("anna", "anna's secret");
  Expect(device_.Ctl({"whoami", token}), 0, "anna\n");
  Expect(device_.Ctl({"whoami", token, "--json"}), 0, "{\"Name\":\"anna\"}\n");
  Expect(device_.Ctl({"logout", token}), 0, "Logged out.\n");
  Expect(device_.Ctl({"whoami", token}), 1, "", "vigilactl: The token belongs to no session.\n");
  Expect(device_.Ctl({"whoami", token, "--json"}), 1,
         "{\"Name\":\"\",\"Message\":\"The token belongs to no session.\"}\n");
  Expect(device_.Ctl({"logout", token, "--json"}), 0, "{\"LoggedOut\":true}\n");
}

TEST_F(Vigilactl, TakesTheTokenFromTheEnvironment) {
  AddAnnaAndBert();
  support::ProgramOptions options;
  options.environment["VIGILA_TOKEN"] = Login("anna", "anna's secret");
  Expect(device_.Ctl({"whoami"}, options), 0, "anna\n");
  Expect(device_.Ctl({"authorize", "/inject.cgi"}, options), 0, "granted\n");
  Expect(device_.Ctl({"whoami", "NO_TOKEN"}, options), 1, "",
         "vigilactl: The token belongs to no session.\n");
  Expect(device_.Ctl({"logout"}, options), 0, "Logged out.\n");
  Expect(device_.Ctl({"authorize", "/inject.cgi"}, options), 1, "refused\n");
}

TEST_F(Vigilactl, SharesASessionOnlyWhenAskedTo) {
  AddAnnaAndBert();
  const auto shared = [&] {
    return device_.CtlWithSecret("anna's secret", {"login", "anna", "--reuse"}).out;
  };
  const std::string first = shared();
  EXPECT_EQ(shared(), first);
  EXPECT_NE(Login("anna", "anna's secret") + "\n", first);
}

TEST_F(Vigilactl, RefusesAWrongLogon) {
  AddAnnaAndBert();
  Expect(device_.CtlWithSecret("anna's secret", {"login", "carl", "--json"}), 1,
         "{\"Name\":\"carl\",\"Token\":\"NO_TOKEN\",\"Message\":\"No session: the name or the "
         "password is wrong.\"}\n");
  EXPECT_EQ(device_.CtlWithSecret("anything", {"login", "nobody"}).exit_code, 1);
  EXPECT_EQ(device_.CtlWithSecret("\xff\xfe", {"login", "\xff"}).exit_code, 1);
  EXPECT_EQ(device_.CtlWithSecret("", {"login", ""}).exit_code, 1);
}

TEST_F(Vigilactl, TellsALockedAccount) {
  device_.StopNow();
  device_.Set("Applications/vigila", "password_policy", "true");
  ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady) << device_.Log();
  AddAnnaAndBert();
  EXPECT_EQ(device_.CtlWithSecret("wrong", {"login", "bert"}).exit_code, 1);
  // Within four seconds of a wrong password even the right one is refused, uncounted.
  Expect(device_.CtlWithSecret("bert's secret", {"login", "bert"}), 1, "",
         "vigilactl: No session: the name or the password is wrong.\n");
}

TEST_F(Vigilactl, EndsSessionsOfAUserAndOfEverybody) {
  AddAnnaAndBert();
  const std::string anna = Login("anna", "anna's secret");
  const std::string bert = Login("bert", "bert's secret");
  Expect(device_.Ctl({"invalidate", "bert"}), 0, "Ended every session of bert.\n");
  EXPECT_EQ(device_.Ctl({"whoami", bert}).exit_code, 1);
  EXPECT_EQ(device_.Ctl({"whoami", anna}).exit_code, 0);
  Expect(device_.Ctl({"invalidate", "--all", "--json"}), 0, "{\"Name\":\"*\"}\n");
  EXPECT_EQ(device_.Ctl({"whoami", anna}).exit_code, 1);
}

TEST_F(Vigilactl, AuthorizesByTheRulesAndAnswersInBothForms) {
  AddAnnaAndBert();
  const std::string anna = Login("anna", "anna's secret");
  const std::string bert = Login("bert", "bert's secret");
  Expect(device_.Ctl({"authorize", anna, "/inject.cgi"}), 0, "granted\n");
  Expect(device_.Ctl({"authorize", bert, "/inject.cgi"}), 1, "refused\n");
  Expect(device_.Ctl({"authorize", "NO_TOKEN", "/inject.cgi"}), 1, "refused\n");
  Expect(device_.Ctl({"authorize", bert, "/jpeg/1", "--json"}), 0,
         "{\"Path\":\"/jpeg/1\",\"Granted\":true}\n");
  Expect(device_.Ctl({"authorize", "00000000", "/jpeg/1", "--json"}), 1,
         "{\"Path\":\"/jpeg/1\",\"Granted\":false}\n");
  Expect(device_.Ctl({"authorize", anna, ""}), 0, "granted\n",
         "vigilactl: note: the path does not begin with \"/\"; it is judged as written, and web "
         "servers ask for the canonical one\n");
}

TEST_F(Vigilactl, NotesAPathThatNoWebServerAsksFor) {
  const std::string note =
      "vigilactl: note: the path has a \".\" or \"..\" segment; it is judged as written, and web "
      "servers ask for the canonical one\n";
  Expect(device_.Ctl({"authorize", "NO_TOKEN", "/x/../inject.cgi"}), 0, "granted\n", note);
  Expect(device_.Ctl({"protected", "/x/../inject.cgi"}), 0, "open\n", note);
  EXPECT_EQ(device_.Ctl({"explain", "nobody", "/x/../inject.cgi"}).err, note);
  EXPECT_EQ(device_.Ctl({"protected", "/x/../inject.cgi", "--json"}).err, "");
}

TEST_F(Vigilactl, ListsPathsAndPermissions) {
  AddAnnaAndBert();
  const std::string bert = Login("bert", "bert's secret");
  Expect(device_.Ctl({"paths", "NO_TOKEN"}), 0,
         "/control\n/control/*\n/halvard-instrument\n/halvard-instrument/cgi\n"
         "/halvard-instrument/cgi/*\n/onvif\n/onvif/*\n/system\n");
  const Finished paths = device_.Ctl({"paths", Login("anna", "anna's secret"), "--json"});
  EXPECT_NE(paths.out.find("\"/inject.cgi\""), std::string::npos) << paths.out;
  Expect(device_.Ctl({"permissions", bert}), 0,
         "PERMISSION                            NAME\n"
         "00d8dc27-61d1-4b7d-85a8-519efb70d712  API access\n"
         "252ebb4c-d6cf-4f3d-892d-1b0d2431cb7a  read system\n"
         "88049574-465a-4f41-89d4-d6d517e8c218  read media\n"
         "d6f86cee-5c0c-41ce-a91f-b8563a2b94d6  control access\n");
  Expect(device_.Ctl({"permissions", "NO_TOKEN", "--json"}), 0,
         "{\"Permissions\":[{\"ID\":\"00d8dc27-61d1-4b7d-85a8-519efb70d712\",\"Name\":\"API "
         "access\"},{\"ID\":\"d6f86cee-5c0c-41ce-a91f-b8563a2b94d6\",\"Name\":\"control "
         "access\"}]}\n");
}

TEST_F(Vigilactl, TellsProtectedPaths) {
  Expect(device_.Ctl({"protected", "/inject.cgi"}), 0, "protected\n");
  Expect(device_.Ctl({"protected", "/system"}), 0, "open\n");
  Expect(device_.Ctl({"protected", "/jpeg/1", "--json"}), 0,
         "{\"Path\":\"/jpeg/1\",\"Protected\":true}\n");
}

TEST_F(Vigilactl, ListsTheRules) {
  Expect(
      device_.Ctl({"rule", "list"}), 0,
      "PATH                       RULE                                    FIXED  MEANING\n"
      "/control/*                 {d6f86cee-5c0c-41ce-a91f-b8563a2b94d6}  yes    who may: control "
      "access\n"
      "/halvard-instrument/cgi/*  {00d8dc27-61d1-4b7d-85a8-519efb70d712}  yes    who may: API "
      "access\n"
      "/inject.cgi                @admins                                 yes    administrators\n"
      "/jpeg*                     {88049574-465a-4f41-89d4-d6d517e8c218}  no     who may: read "
      "media\n"
      "/onvif/*                   {00d8dc27-61d1-4b7d-85a8-519efb70d712}  yes    who may: API "
      "access\n"
      "/rtsp/*                    {88049574-465a-4f41-89d4-d6d517e8c218}  no     who may: read "
      "media\n"
      "/system                    true                                    yes    everybody\n"
      "/ws/*                      {88049574-465a-4f41-89d4-d6d517e8c218}  no     who may: read "
      "media\n");
  const Finished json = device_.Ctl({"rule", "list", "--json"});
  EXPECT_NE(json.out.find("{\"Path\":\"/inject.cgi\",\"Rule\":\"@admins\",\"Changeable\":false}"),
            std::string::npos)
      << json.out;
}

TEST_F(Vigilactl, ChangesARuleThatTakesEffectAtOnceAndSurvivesAKill) {
  AddAnnaAndBert();
  const std::string bert = Login("bert", "bert's secret");
  Expect(device_.Ctl({"rule", "get", "/jpeg*"}), 0, std::string(kReadMedia) + "\n");
  Expect(device_.Ctl({"authorize", bert, "/jpeg/1"}), 0, "granted\n");
  Expect(device_.Ctl({"rule", "set", "/jpeg*", "@operators"}), 0,
         "Open now        anna, bert\n"
         "Open then       anna\n"
         "Gain access     no one\n"
         "Lose access     bert\n"
         "Their sessions  1\n"
         "/jpeg* is now for: operators and above\n");
  Expect(device_.Ctl({"authorize", bert, "/jpeg/1"}), 1, "refused\n");
  EXPECT_EQ(device_.Stop(SIGKILL).signal, SIGKILL);
  ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady);
  Expect(device_.Ctl({"rule", "get", "/jpeg*", "--json"}), 0,
         "{\"Path\":\"/jpeg*\",\"Rule\":\"@operators\"}\n");
  Expect(device_.Ctl({"rule", "set", "/jpeg*", "true", "--json"}), 0,
         "{\"Path\":\"/jpeg*\",\"Rule\":\"true\",\"Changed\":true}\n");
  Expect(device_.Ctl({"protected", "/jpeg/1"}), 0, "open\n");
}

TEST_F(Vigilactl, RefusesToChangeARuleThatIsFixed) {
  Expect(device_.Ctl({"rule", "set", "/system", "@admins"}), 1, "",
         "vigilactl: This path has no rule that can be changed.\n");
  Expect(device_.Ctl({"rule", "get", "/system"}), 0, "true\n");
  Expect(device_.Ctl({"rule", "get", "/nowhere"}), 1, "",
         "vigilactl: There is no rule for this path.\n");
  Expect(
      device_.Ctl({"rule", "set", "/nowhere", "true", "--json"}), 1,
      "{\"Path\":\"/nowhere\",\"Rule\":\"true\",\"Changed\":false,\"Message\":\"This path has no "
      "rule that can be changed.\"}\n");
}

// The service takes any text and reads what it does not understand as a refusal.
TEST_F(Vigilactl, WarnsOfARuleThatRefusesEverybody) {
  const Finished end = device_.Ctl({"rule", "set", "/ws/*", "@admin"});
  EXPECT_EQ(end.exit_code, 0);
  EXPECT_NE(end.out.find("\n/ws/* is now for: no one at all\n"), std::string::npos) << end.out;
  EXPECT_NE(end.err.find("no such group"), std::string::npos) << end.err;
  Expect(device_.Ctl({"rule", "get", "/ws/*"}), 0, "@admin\n");
  EXPECT_EQ(device_.Ctl({"rule", "set", "/ws/*", ""}).exit_code, 0);
  Expect(device_.Ctl({"rule", "get", "/ws/*"}), 0, "\n");
}

TEST_F(Vigilactl, KeepsPassphrases) {
  Expect(device_.Ctl({"passphrase", "list"}), 0, "ID  ALIAS\n");
  const Finished added =
      device_.CtlWithSecret("the phrase\n", {"passphrase", "add", "camera \"1\""});
  ASSERT_EQ(added.exit_code, 0) << added.err;
  const std::string id = added.out.substr(0, added.out.size() - 1);
  EXPECT_EQ(id.size(), 37u);
  EXPECT_EQ(id.front(), '_');
  Expect(device_.Ctl({"passphrase", "list"}), 0,
         "ID                                     ALIAS\n" + id + "  camera \"1\"\n");
  const Finished json = device_.Ctl({"passphrase", "list", "--json"});
  EXPECT_EQ(json.out,
            "{\"Passphrases\":[{\"Alias\":\"camera \\\"1\\\"\",\"ID\":\"" + id + "\"}]}\n");
  Expect(device_.Ctl({"passphrase", "show", id}), 0, "the phrase\n");
  Expect(
      device_.Ctl({"passphrase", "show", id, "--json"}), 0,
      "{\"ID\":\"" + id + "\",\"Phrase\":\"the phrase\",\"PhraseBase64\":\"dGhlIHBocmFzZQ==\"}\n");
  Expect(device_.Ctl({"passphrase", "delete", id}), 0, "Deleted " + id + ".\n");
  Expect(
      device_.Ctl({"passphrase", "delete", id, "--json"}), 1,
      "{\"ID\":\"" + id + "\",\"Deleted\":false,\"Message\":\"There is no such passphrase.\"}\n");
  Expect(device_.Ctl({"passphrase", "show", id}), 1, "",
         "vigilactl: There is no such passphrase.\n");
}

TEST_F(Vigilactl, FindsAPassphraseByAnAliasThatOnlyOneHas) {
  const auto add = [this](const std::string& phrase, const std::string& alias) {
    return device_.CtlWithSecret(phrase, {"passphrase", "add", alias}).out.substr(0, 37);
  };
  const std::string recorder = add("one", "recorder");
  const std::string first = add("two", "camera");
  add("three", "camera");
  add("four", first);  // an alias that is another's identifier
  Expect(device_.Ctl({"passphrase", "show", "recorder"}), 0, "one\n");
  Expect(device_.Ctl({"passphrase", "show", "camera"}), 2, "",
         "vigilactl: several passphrases have the alias \"camera\"; give an identifier of "
         "\"vigilactl passphrase list\"\n");
  Expect(device_.Ctl({"passphrase", "show", first}), 0, "two\n");
  Expect(device_.Ctl({"passphrase", "delete", "recorder"}), 0, "Deleted " + recorder + ".\n");
  EXPECT_EQ(device_.Ctl({"passphrase", "delete", "camera"}).exit_code, 2);
  Expect(device_.Ctl({"passphrase", "show", first}), 0, "two\n");
}

TEST_F(Vigilactl, KeepsAPassphraseOfAnyBytesAndRefusesAnEmptyOne) {
  const std::string phrase("\0\xff\x1b[31m", 7);
  const Finished added = device_.CtlWithSecret(phrase, {"passphrase", "add", "bytes"});
  ASSERT_EQ(added.exit_code, 0) << added.err;
  EXPECT_EQ(device_.Ctl({"passphrase", "show", added.out.substr(0, 37)}).out, phrase + "\n");
  Expect(device_.CtlWithSecret("", {"passphrase", "add", "empty"}), 1, "",
         "vigilactl: The passphrase is empty.\n");
}

TEST_F(Vigilactl, ListsAnAliasWithControlBytesHarmlessly) {
  ASSERT_EQ(device_.CtlWithSecret("phrase", {"passphrase", "add", "\x1b[2Jalias"}).exit_code, 0);
  const Finished listed = device_.Ctl({"passphrase", "list"});
  EXPECT_EQ(listed.out.find('\x1b'), std::string::npos);
  EXPECT_NE(listed.out.find("\\x1b[2Jalias"), std::string::npos) << listed.out;
}

TEST(VigilactlWithoutService, SaysThatTheServiceIsNotReachable) {
  DaemonProcess device;
  for (const std::vector<std::string>& verb : {std::vector<std::string>{"status"},
                                               {"user", "list"},
                                               {"whoami", "12345678"},
                                               {"rule", "list"},
                                               {"passphrase", "list"},
                                               {"invalidate", "--all"}}) {
    const Finished end = device.Ctl(verb);
    EXPECT_EQ(end.exit_code, 3) << end.out << end.err;
    EXPECT_EQ(end.err, "vigilactl: the service is not reachable: there is no socket " +
                           device.ServiceSocket() + kLookAtService);
    EXPECT_EQ(end.out, "");
  }
  const Finished json = device.Ctl({"status", "--json"});
  EXPECT_EQ(json.exit_code, 3);
  EXPECT_EQ(json.out.rfind("{\"Exit\":3,\"Message\":\"", 0), 0u) << json.out;
}

TEST(VigilactlWithoutService, TellsASocketThatWasLeftBehind) {
  const DaemonProcess device;
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  device.ServiceSocket().copy(address.sun_path, sizeof(address.sun_path) - 1);
  const support::Fd socket_without_listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(
      bind(socket_without_listener.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)),
      0);
  const Finished end = device.Ctl({"status"});
  EXPECT_EQ(end.exit_code, 3);
  EXPECT_EQ(end.err, "vigilactl: the service is not reachable: no one answers at the socket " +
                         device.ServiceSocket() + kLookAtService);
}

TEST(VigilactlWithoutService, HelpsWithoutAConfiguration) {
  const Finished help = support::RunProgram(
      {VIGILACTL_PATH, "--config", "/nonexistent/platform.ini", "help", "user"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_EQ(help.out, support::RunProgram({VIGILACTL_PATH, "user", "--help"}).out);
  EXPECT_NE(help.out.find("Usage: vigilactl user [OPTIONS] VERB\n"), std::string::npos) << help.out;
}

TEST(VigilactlWithoutService, RefusesAConfigurationThatIsNotThere) {
  const Finished end =
      support::RunProgram({VIGILACTL_PATH, "--config", "/nonexistent/platform.ini", "status"});
  EXPECT_EQ(end.exit_code, 2);
  EXPECT_NE(end.err.find("/nonexistent/platform.ini"), std::string::npos) << end.err;
}

TEST(VigilactlWithoutService, TellsVersionAndHelp) {
  const Finished version = support::RunProgram({VIGILACTL_PATH, "--version"});
  EXPECT_EQ(version.exit_code, 0);
  EXPECT_EQ(version.out, "vigilactl 1.0.0\n");
  const Finished help = support::RunProgram({VIGILACTL_PATH, "--help"});
  EXPECT_EQ(help.exit_code, 0);
  for (const char* verb :
       {"user", "login", "logout", "whoami", "authorize", "paths", "permissions", "protected",
        "invalidate", "passphrase", "rule", "status", "session", "explain", "help"}) {
    EXPECT_NE(help.out.find(verb), std::string::npos) << verb;
  }
}

}  // namespace
