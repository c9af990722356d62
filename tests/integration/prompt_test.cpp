#include <gtest/gtest.h>

#include <string>

#include "support/at_terminal.h"

namespace {

using support::AtTerminal;
using support::DaemonProcess;

class Prompt : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady) << device_.Log();
  }
  DaemonProcess device_;
};

TEST_F(Prompt, AsksTwiceForANewPasswordAndShowsNoneOfIt) {
  AtTerminal terminal(device_, {"user", "add", "anna", "-g", "admins"});
  ASSERT_TRUE(terminal.Shows("The new password of anna: ")) << terminal.Screen();
  EXPECT_FALSE(terminal.Echoes());
  terminal.Type("hidden-secret\n");
  ASSERT_TRUE(terminal.Shows("The new password of anna again: ")) << terminal.Screen();
  terminal.Type("hidden-secret\n");
  ASSERT_TRUE(terminal.Shows("Added anna to admins.")) << terminal.Screen();
  EXPECT_EQ(terminal.Wait(), 0);
  EXPECT_TRUE(terminal.Echoes());
  EXPECT_EQ(terminal.Screen().find("hidden"), std::string::npos) << terminal.Screen();
  EXPECT_EQ(device_.CtlWithSecret("hidden-secret", {"login", "anna"}).exit_code, 0);
}

TEST_F(Prompt, RefusesTwoAnswersThatDiffer) {
  AtTerminal terminal(device_, {"user", "add", "anna", "-g", "admins"});
  ASSERT_TRUE(terminal.Shows("anna: "));
  terminal.Type("one-secret\n");
  ASSERT_TRUE(terminal.Shows("again: "));
  terminal.Type("another-secret\n");
  ASSERT_TRUE(terminal.Shows("the two answers differ")) << terminal.Screen();
  EXPECT_EQ(WEXITSTATUS(terminal.Wait()), 2);
  EXPECT_EQ(device_.Ctl({"user", "list"}).out,
            "NAME    GROUP   STATE  EXPIRES  LAST LOGON  SESSIONS\n"
            "nobody  nobody  ok     -        -           -\n");
}

TEST_F(Prompt, PutsTheTerminalRightBeforeASignalEndsIt) {
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
    AtTerminal terminal(device_, {"login", "anna"});
    ASSERT_TRUE(terminal.Shows("The password of anna: "));
    EXPECT_FALSE(terminal.Echoes());
    kill(terminal.Pid(), number);
    const int status = terminal.Wait();
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), number);
    EXPECT_TRUE(terminal.Echoes());
  }
}

TEST_F(Prompt, EndsByTheInterruptKey) {
  AtTerminal terminal(device_, {"login", "anna"});
  ASSERT_TRUE(terminal.Shows("The password of anna: "));
  terminal.Type("half a sec\x03");
  EXPECT_EQ(WTERMSIG(terminal.Wait()), SIGINT);
  EXPECT_TRUE(terminal.Echoes());
}

// The kernel does not stop a session without a shell to continue it, so the question comes again.
TEST_F(Prompt, AsksAgainAfterTheStopKey) {
  AtTerminal terminal(device_, {"login", "anna"});
  ASSERT_TRUE(terminal.Shows("The password of anna: "));
  terminal.Type("half\x1a");
  ASSERT_TRUE(terminal.Shows("The password of anna: ")) << terminal.Screen();
  terminal.Type("secret\n");
  ASSERT_TRUE(terminal.Shows("No session")) << terminal.Screen();
  EXPECT_EQ(WEXITSTATUS(terminal.Wait()), 1);
}

TEST_F(Prompt, TakesTheEndOfFileKeyForNoAnswer) {
  AtTerminal terminal(device_, {"login", "anna"});
  ASSERT_TRUE(terminal.Shows("The password of anna: "));
  terminal.Type("\x04");
  ASSERT_TRUE(terminal.Shows("no answer at the terminal")) << terminal.Screen();
  EXPECT_EQ(WEXITSTATUS(terminal.Wait()), 2);
  EXPECT_TRUE(terminal.Echoes());
}

TEST_F(Prompt, ShowsAPassphraseHarmlesslyOnATerminal) {
  const std::string added =
      device_.CtlWithSecret("a\x1b[2Jb", {"passphrase", "add", "x"}).out.substr(0, 37);
  AtTerminal terminal(device_, {"passphrase", "show", added});
  ASSERT_TRUE(terminal.Shows("a\\x1b[2Jb")) << terminal.Screen();
  EXPECT_EQ(terminal.Wait(), 0);
}

TEST_F(Prompt, ShowsWhatABackupWouldReplaceAndRestoresItAfterAYesAlone) {
  const auto add = [this](const std::string& name) {
    return device_.CtlWithSecret("a secret", {"user", "add", name, "-g", "admins"}).exit_code;
  };
  ASSERT_EQ(add("anna"), 0);
  const std::string file = device_.Dir().File("accounts");
  {
    AtTerminal terminal(device_, {"backup", "save", file});
    ASSERT_TRUE(terminal.Shows("The passphrase of the backup: "));
    terminal.Type("hidden passphrase\n");
    ASSERT_TRUE(terminal.Shows("The passphrase of the backup again: "));
    terminal.Type("hidden passphrase\n");
    ASSERT_TRUE(terminal.Shows("Saved 2 accounts, 0 passphrases, 3 rules to "))
        << terminal.Screen();
    EXPECT_EQ(terminal.Wait(), 0);
  }
  ASSERT_EQ(add("bert"), 0);
  for (const std::string answer : {"y", "", "yes"}) {
    AtTerminal terminal(device_, {"backup", "restore", file});
    ASSERT_TRUE(terminal.Shows("The passphrase of the backup: "));
    terminal.Type("hidden passphrase\n");
    ASSERT_TRUE(terminal.Shows("Accounts removed     bert\r\n")) << terminal.Screen();
    ASSERT_TRUE(terminal.Shows("All sessions end. Type \"yes\" to replace what the device has: "));
    terminal.Type(answer + "\n");
    ASSERT_TRUE(terminal.Shows(answer == "yes" ? "Restored 2 accounts" : "Nothing was changed."))
        << terminal.Screen();
    EXPECT_EQ(WEXITSTATUS(terminal.Wait()), answer == "yes" ? 0 : 1);
    EXPECT_EQ(terminal.Screen().find("hidden"), std::string::npos);
    const bool there = device_.CtlWithSecret("a secret", {"login", "bert"}).exit_code == 0;
    EXPECT_EQ(there, answer != "yes");
  }
}

TEST(PromptWithoutTerminal, PointsToStandardInput) {
  const DaemonProcess device;
  const support::Finished end =
      support::RunProgram({"/usr/bin/setsid", "--wait", VIGILACTL_PATH, "--config",
                           device.ConfigFile(), "login", "anna"});
  EXPECT_EQ(end.exit_code, 2) << end.err;
  EXPECT_NE(end.err.find("use --password-stdin"), std::string::npos) << end.err;
}

}  // namespace
