// What the shells offer behind the words of an unfinished command line.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>

#include "support/daemon_process.h"

namespace {

using support::DaemonProcess;

struct Shell {
  const char* program;
  // Prints what is offered behind "$1", a word a line, with the completion in "$2".
  const char* script;
};

const std::map<std::string, Shell> kShells = {
    {"bash",
     {"/bin/bash",
      "source \"$2\"; COMP_LINE=$1 COMP_POINT=${#1}; _vigilactl; "
      "printf '%s\\n' \"${COMPREPLY[@]}\""}},
    // The completion system of zsh runs in its line editor only: its two functions print here.
    {"zsh",
     {"/usr/bin/zsh",
      "_describe() { printf '%s\\n' ${${offers//\\\\:/%}/:*/} }; _files() { printf '%s\\n' "
      "${words[-1]}*(N) }; "
      "complete() { words=(${(z)1}); [[ $1 == *' ' ]] && words+=(''); local CURRENT=$#words; "
      "source $2 }; complete \"$1\" \"$2\""}},
    {"fish",
     {"/usr/bin/fish",
      "source $argv[2]; complete --do-complete $argv[1] | string replace -r '\\t.*' ''"}},
};

class Completion : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    if (access(TheShell().program, X_OK) != 0) GTEST_SKIP() << TheShell().program << " is missing";
    ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady) << device_.Log();
  }
  static const Shell& TheShell() { return kShells.at(GetParam()); }
  // What the shell offers behind these words, one a line; `typed` follows the program's name.
  std::string Offered(const std::string& typed) {
    support::ProgramOptions options;
    options.environment["TEVRA_PLATFORM_CONFIG"] = device_.ConfigFile();
    options.environment["VIGILA_TOKEN"] = "";
    options.environment["HOME"] = device_.Dir().Path();
    const std::string file = std::string(COMPLETION_DIR "/vigilactl.") + GetParam();
    const std::string line = VIGILACTL_PATH " " + typed;
    std::vector<std::string> argv = {TheShell().program, "-c", TheShell().script};
    if (std::string(GetParam()) != "fish") argv.push_back("shell");
    argv.insert(argv.end(), {line, file});
    const support::Finished end = support::RunProgram(argv, options);
    EXPECT_EQ(end.err, "");
    return end.out;
  }
  void Add(const std::string& name) {
    ASSERT_EQ(device_.CtlWithSecret("secret", {"user", "add", name, "-g", "viewers"}).exit_code, 0);
  }

  DaemonProcess device_;
};

TEST_P(Completion, OffersVerbsAndOptions) {
  EXPECT_EQ(Offered("pass"), "passphrase\n");
  EXPECT_EQ(Offered("user "), "list\nunlock\nadd\nmodify\ndelete\n");
  EXPECT_EQ(Offered("user add anna --group ad"), "admins\n");
  EXPECT_EQ(Offered("user modify anna --pass"), "--password\n--password-stdin\n");
  EXPECT_EQ(Offered("--config /etc/passwd rule "), "list\nget\nset\neffect\n");
  EXPECT_EQ(Offered("help sess"), "session\n");
}

TEST_P(Completion, OffersWhatTheServiceLists) {
  Add("anna");
  Add("bert");
  EXPECT_EQ(Offered("user delete b"), "bert\n");
  EXPECT_EQ(Offered("user delete bert an"), "anna\n");
  EXPECT_EQ(Offered("login an"), "anna\n");
  EXPECT_EQ(Offered("explain be"), "bert\n");
  EXPECT_EQ(Offered("session end --user a"), "anna\n");
  EXPECT_EQ(Offered("rule set /j"), "/jpeg*\n");
}

TEST_P(Completion, OffersFilesForTheVerbThatReadsOne) {
  const std::string file = device_.Dir().Write("envelope.xml", "");
  EXPECT_EQ(Offered("wsse"), "wsse-check\n");
  EXPECT_EQ(Offered("wsse-check " + device_.Dir().File("env")), file + "\n");
  EXPECT_EQ(Offered("wsse-check " + file + " --pass"), "--password-stdin\n");
  EXPECT_EQ(Offered("backup "), "save\nshow\nrestore\n");
  EXPECT_EQ(Offered("backup show " + device_.Dir().File("env")), file + "\n");
}

TEST_P(Completion, NeverRunsWhatANameHolds) {
  const std::string proof = device_.Dir().File("proof");
  Add("$(>proof)");
  Add("`>proof`");
  Add("anna");
  std::filesystem::current_path(device_.Dir().Path());
  EXPECT_EQ(Offered("user delete "), "anna\nnobody\n");
  EXPECT_FALSE(std::filesystem::exists(proof));
  std::filesystem::current_path("/");
}

INSTANTIATE_TEST_SUITE_P(Shells, Completion, testing::Values("bash", "zsh", "fish"),
                         [](const auto& shell) { return std::string(shell.param); });

}  // namespace
