#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/daemon_process.h"

namespace {

using support::DaemonProcess;

class Completion : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady) << device_.Log();
  }
  // What bash offers behind these words, the last of which is being typed; one a line.
  std::string Offered(const std::vector<std::string>& words) {
    std::vector<std::string> argv = {
        "/bin/bash",
        "-c",
        "source \"$1\"; shift; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _vigilactl; "
        "printf '%s\\n' \"${COMPREPLY[@]}\"",
        "bash",
        VIGILACTL_COMPLETION,
        VIGILACTL_PATH};
    argv.insert(argv.end(), words.begin(), words.end());
    support::ProgramOptions options;
    options.environment["TEVRA_PLATFORM_CONFIG"] = device_.ConfigFile();
    const support::Finished end = support::RunProgram(argv, options);
    EXPECT_EQ(end.err, "");
    return end.out;
  }
  void Add(const std::string& name) {
    ASSERT_EQ(device_.CtlWithSecret("secret", {"user", "add", name, "-g", "viewers"}).exit_code, 0);
  }

  DaemonProcess device_;
};

TEST_F(Completion, OffersVerbsAndOptions) {
  EXPECT_EQ(Offered({"pass"}), "passphrase\n");
  EXPECT_EQ(Offered({"user", ""}), "list\nunlock\nadd\nmodify\ndelete\n");
  EXPECT_EQ(Offered({"user", "add", "anna", "--group", "ad"}), "admins\n");
  EXPECT_EQ(Offered({"user", "modify", "anna", "--pass"}), "--password\n--password-stdin\n");
  EXPECT_EQ(Offered({"--config", "/etc/passwd", "rule", ""}), "list\nget\nset\neffect\n");
}

TEST_F(Completion, OffersWhatTheServiceLists) {
  Add("anna");
  Add("bert");
  EXPECT_EQ(Offered({"user", "delete", "b"}), "bert\n");
  EXPECT_EQ(Offered({"login", "an"}), "anna\n");
  EXPECT_EQ(Offered({"user", "unlock", "b"}), "bert\n");
  EXPECT_EQ(Offered({"explain", "be"}), "bert\n");
  EXPECT_EQ(Offered({"session", "end", "--user", "a"}), "anna\n");
  EXPECT_EQ(Offered({"rule", "set", "/j"}), "/jpeg*\n");
  EXPECT_EQ(Offered({"rule", "set", "/jpeg*", "@"}), "@admins\n@managers\n@operators\n@viewers\n");
}

TEST_F(Completion, OffersFilesForTheVerbThatReadsOne) {
  const std::string file = device_.Dir().Write("envelope.xml", "");
  EXPECT_EQ(Offered({"wsse"}), "wsse-check\n");
  EXPECT_EQ(Offered({"wsse-check", device_.Dir().File("env")}), file + "\n");
  EXPECT_EQ(Offered({"wsse-check", file, "--pass"}), "--password-stdin\n");
}

TEST_F(Completion, NeverRunsWhatANameHolds) {
  const std::string proof = device_.Dir().File("proof");
  Add("$(>proof)");
  Add("`>proof`");
  Add("anna");
  std::filesystem::current_path(device_.Dir().Path());
  EXPECT_EQ(Offered({"user", "delete", ""}), "anna\nnobody\n");
  EXPECT_FALSE(std::filesystem::exists(proof));
  std::filesystem::current_path("/");
}

}  // namespace
