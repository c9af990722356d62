// What a person sees at a terminal, and is asked there.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "support/at_terminal.h"
#include "support/device_with_accounts.h"

namespace {

using support::AtTerminal;
using support::DeviceWithAccounts;

constexpr char kOpenQuestion[] = "Open /jpeg* to everyone, also without a session? [y/N] ";

size_t LongestLine(const std::string& screen) {
  size_t longest = 0;
  std::istringstream lines(screen);
  for (std::string line; std::getline(lines, line);) {
    longest = std::max(longest, line.size());
  }
  return longest;
}

class Terminal : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(with_accounts_.Start()) << device_.Log(); }
  std::string Shown(const std::vector<std::string>& arguments, unsigned short columns) {
    return AtTerminal(device_, arguments, columns).FinalScreen();
  }
  std::string RuleOfPictures() { return device_.Ctl({"rule", "get", "/jpeg*"}).out; }
  bool HasViewer() {
    return device_.Ctl({"user", "list"}).out.find("\nview ") != std::string::npos;
  }

  DeviceWithAccounts with_accounts_;
  support::DaemonProcess& device_ = with_accounts_.device;
};

TEST_F(Terminal, ShowsTheAccountsInItsWidth) {
  const std::string long_name(32, 'n');
  ASSERT_TRUE(with_accounts_.Add(long_name, "operators"));
  const std::string in_pipe = device_.Ctl({"user", "list"}).out;
  EXPECT_GT(LongestLine(in_pipe), 80u);
  EXPECT_EQ(Shown({"user", "list"}, 200), in_pipe);
  EXPECT_EQ(Shown({"user", "list"}, 80),
            "NAME    GROUP      STATE  EXPIRES  LAST LOGON  SESSIONS\n"
            "admin   admins     ok     never    unknown     0\n" +
                long_name +
                "\n"
                "        operators  ok     never    unknown     0\n"
                "nobody  nobody     ok     -        -           -\n"
                "view    viewers    ok     never    unknown     0\n");
}

TEST_F(Terminal, AlignsWideAndCombiningCharacters) {
  ASSERT_TRUE(
      with_accounts_.Add("\xe7\x94\xb0\xe4\xb8\xad", "viewers"));  // two, of two columns each
  ASSERT_TRUE(with_accounts_.Add("e\xcc\x81va", "viewers"));       // e and an accent
  const std::string screen = Shown({"user", "list"}, 80);
  EXPECT_NE(screen.find("\n\xe7\x94\xb0\xe4\xb8\xad    viewers  ok"), std::string::npos) << screen;
  EXPECT_NE(screen.find("\ne\xcc\x81va     viewers  ok"), std::string::npos) << screen;
}

TEST_F(Terminal, ShowsTheRulesInItsWidth) {
  EXPECT_LE(LongestLine(Shown({"rule", "list"}, 80)), 80u);
  EXPECT_EQ(Shown({"rule", "list"}, 200), device_.Ctl({"rule", "list"}).out);
}

TEST_F(Terminal, ExplainsAsInAPipe) {
  const std::string in_pipe = device_.Ctl({"explain", "view", "/inject.cgi"}).out;
  EXPECT_EQ(
      in_pipe,
      "refused: rule \"/inject.cgi\" = \"@admins\" (administrators); view is in viewers. Open "
      "to: admin.\n");
  EXPECT_EQ(Shown({"explain", "view", "/inject.cgi"}, 80), in_pipe);
  EXPECT_EQ(Shown({"explain", "view", "/inject.cgi"}, 200), in_pipe);
}

TEST_F(Terminal, ShowsTheEffectOfARuleAndAsksBeforeAPathIsOpenedToEveryone) {
  const std::string before = RuleOfPictures();
  AtTerminal terminal(device_, {"rule", "set", "/jpeg*", "true"});
  ASSERT_TRUE(
      terminal.Shows("Open now        admin, view\r\n"
                     "Open then       everyone\r\n"
                     "Gain access     callers without a session\r\n"
                     "Lose access     no one\r\n"
                     "Their sessions  0\r\n"))
      << terminal.Screen();
  ASSERT_TRUE(terminal.Shows(kOpenQuestion)) << terminal.Screen();
  EXPECT_EQ(RuleOfPictures(), before);
  terminal.Type("y\n");
  ASSERT_TRUE(terminal.Shows("/jpeg* is now for: everybody")) << terminal.Screen();
  EXPECT_EQ(WEXITSTATUS(terminal.Wait()), 0);
  EXPECT_EQ(RuleOfPictures(), "true\n");
}

TEST_F(Terminal, LeavesTheRuleAsItWasWithoutAYes) {
  const std::string before = RuleOfPictures();
  for (const char* keys : {"n\n", "\n", "yess\n", "\x04"}) {
    AtTerminal terminal(device_, {"rule", "set", "/jpeg*", "true"});
    ASSERT_TRUE(terminal.Shows(kOpenQuestion)) << terminal.Screen();
    terminal.Type(keys);
    ASSERT_TRUE(terminal.Shows("vigilactl: The rule stays as it was.")) << terminal.Screen();
    EXPECT_EQ(WEXITSTATUS(terminal.Wait()), 1);
    EXPECT_EQ(RuleOfPictures(), before);
  }
}

TEST_F(Terminal, LeavesTheRuleAsItWasAtTheInterruptKey) {
  const std::string before = RuleOfPictures();
  AtTerminal terminal(device_, {"rule", "set", "/jpeg*", "true"});
  ASSERT_TRUE(terminal.Shows(kOpenQuestion)) << terminal.Screen();
  terminal.Type("\x03");
  const int status = terminal.Wait();
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGINT);
  EXPECT_EQ(RuleOfPictures(), before);
}

TEST_F(Terminal, AsksBeforeAPathIsClosedToEveryone) {
  AtTerminal terminal(device_, {"rule", "set", "/jpeg*", "false"});
  ASSERT_TRUE(terminal.Shows("Close /jpeg* to everyone? [y/N] ")) << terminal.Screen();
  terminal.Type("yes\n");
  ASSERT_TRUE(terminal.Shows("/jpeg* is now for: no one at all")) << terminal.Screen();
  EXPECT_EQ(WEXITSTATUS(terminal.Wait()), 0);
}

TEST_F(Terminal, DoesNotAskWhereNothingOfThatKindChanges) {
  const std::string screen = Shown({"rule", "set", "/jpeg*", "@operators"}, 80);
  EXPECT_EQ(screen.find("[y/N]"), std::string::npos) << screen;
  EXPECT_NE(screen.find("Lose access     view\n"), std::string::npos) << screen;
  EXPECT_EQ(RuleOfPictures(), "@operators\n");
  EXPECT_EQ(Shown({"rule", "set", "/jpeg*", "true", "--yes"}, 80).find("[y/N]"), std::string::npos);
  EXPECT_EQ(RuleOfPictures(), "true\n");
  EXPECT_EQ(Shown({"rule", "set", "/jpeg*", "true"}, 80).find("[y/N]"), std::string::npos)
      << "it is open already";
  EXPECT_NE(Shown({"rule", "effect", "/jpeg*", "@operators"}, 80)
                .find("Lose access     callers without a session, view\n"),
            std::string::npos);
}

TEST_F(Terminal, AsksBeforeAccountsAreDeleted) {
  constexpr char kQuestion[] = "Delete view? Their sessions end. [y/N] ";
  for (const char* keys : {"n\n", "\x04"}) {
    AtTerminal terminal(device_, {"user", "delete", "view"});
    ASSERT_TRUE(terminal.Shows(kQuestion)) << terminal.Screen();
    terminal.Type(keys);
    ASSERT_TRUE(terminal.Shows("vigilactl: Nothing was deleted.")) << terminal.Screen();
    EXPECT_EQ(WEXITSTATUS(terminal.Wait()), 1);
  }
  AtTerminal interrupted(device_, {"user", "delete", "view"});
  ASSERT_TRUE(interrupted.Shows(kQuestion)) << interrupted.Screen();
  interrupted.Type("y\x03");
  EXPECT_EQ(WTERMSIG(interrupted.Wait()), SIGINT);
  EXPECT_TRUE(HasViewer());

  AtTerminal terminal(device_, {"user", "delete", "view"});
  ASSERT_TRUE(terminal.Shows(kQuestion)) << terminal.Screen();
  terminal.Type("y\n");
  ASSERT_TRUE(terminal.Shows("Deleted view.")) << terminal.Screen();
  EXPECT_EQ(WEXITSTATUS(terminal.Wait()), 0);
  EXPECT_FALSE(HasViewer());
}

TEST_F(Terminal, DeletesAccountsUnaskedWithYes) {
  EXPECT_EQ(Shown({"user", "delete", "view", "--yes"}, 80), "Deleted view.\n");
  EXPECT_FALSE(HasViewer());
}

}  // namespace
