#include "vigilactl/command_line.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "vigilactl/printable_text.h"

namespace vigilactl {
namespace {

class CommandLine : public testing::Test {
 protected:
  CommandLine() { AddCommandLine(app_, invocation_); }

  CommandWords Follow(const std::vector<std::string>& words) { return FollowWords(app_, words); }
  void ForEveryVerb(const CLI::App& verb, const std::function<void(const CLI::App&)>& check) {
    check(verb);
    for (const CLI::App* below : verb.get_subcommands([](const CLI::App*) { return true; })) {
      ForEveryVerb(*below, check);
    }
  }

  std::ostringstream out_, err_;
  Invocation invocation_{out_, err_};
  CLI::App app_{"A program.", "vigilactl"};
};

TEST_F(CommandLine, IsFollowedIntoTheVerbs) {
  const CommandWords words = Follow({"user", "add", "anna", "--group", "admins", "--json"});
  EXPECT_EQ(NameOf(*words.verb), "user add");
  EXPECT_EQ(words.arguments, 1u);
  EXPECT_EQ(words.unknown, "");
  EXPECT_EQ(words.awaiting, nullptr);
  EXPECT_TRUE(words.json);
  EXPECT_EQ(words.config_file, "");
}

TEST_F(CommandLine, IsFollowedPastOptionsAndTheirValues) {
  const CommandWords words = Follow({"--config", "user", "session", "list", "--user"});
  EXPECT_EQ(NameOf(*words.verb), "session list");
  EXPECT_EQ(words.config_file, "user");
  ASSERT_NE(words.awaiting, nullptr);
  EXPECT_TRUE(words.awaiting->check_lname("user"));
  EXPECT_EQ(Follow({"--config=file", "status"}).config_file, "file");
  EXPECT_EQ(Follow({"user", "add", "-g", "--json"}).json, false) << "the value of -g";
  EXPECT_EQ(Follow({"login", "--", "--json"}).json, false);
  EXPECT_EQ(Follow({"login", "--", "--json"}).arguments, 1u);
  EXPECT_EQ(Follow({"wsse-check", "-"}).arguments, 1u);
}

TEST_F(CommandLine, RemembersTheFirstWordThatIsNotKnown) {
  EXPECT_EQ(Follow({"user", "lst", "mor"}).unknown, "lst");
  EXPECT_EQ(Follow({"user", "status"}).unknown, "status");
  EXPECT_EQ(Follow({"status", "--reuse"}).unknown, "--reuse");
  EXPECT_EQ(Follow({"login", "--reuse", "anna"}).unknown, "");
}

TEST_F(CommandLine, HasHelpOfEveryVerbInEightyColumns) {
  size_t verbs = 0;
  ForEveryVerb(app_, [&](const CLI::App& verb) {
    ++verbs;
    EXPECT_FALSE(verb.get_description().empty()) << NameOf(verb);
    std::istringstream help(verb.help());
    for (std::string line; std::getline(help, line);) {
      EXPECT_LE(DisplayWidth(line), 80u) << NameOf(verb) << ": " << line;
    }
  });
  EXPECT_GT(verbs, 25u);
}

}  // namespace
}  // namespace vigilactl
