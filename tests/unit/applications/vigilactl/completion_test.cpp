#include "vigilactl/completion.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "vigilactl/command_line.h"

namespace vigilactl {
namespace {

using Words = std::vector<std::string>;

class CompletionOffers : public testing::Test {
 protected:
  CompletionOffers() { AddCommandLine(app_, invocation_); }

  Words Offered(const Words& words) {
    Words offered;
    for (const Offer& offer : OffersFor(app_, invocation_, words).words) {
      offered.push_back(offer.word);
    }
    return offered;
  }

  std::ostringstream out_, err_;
  Invocation invocation_{out_, err_};
  CLI::App app_{"A program.", "vigilactl"};
};

TEST_F(CompletionOffers, AreTheVerbsAndOptionsOfTheProgramItself) {
  size_t verbs = 0;
  const std::function<void(const CLI::App&, const Words&)> check = [&](const CLI::App& verb,
                                                                       const Words& path) {
    ++verbs;
    Words typed = path;
    typed.emplace_back("--");
    EXPECT_EQ(Offered(typed), OptionNames(verb)) << NameOf(verb);
    if (VerbNames(verb).empty()) return;
    typed.back() = "";
    EXPECT_EQ(Offered(typed), VerbNames(verb)) << NameOf(verb);
    for (const std::string& name : VerbNames(verb)) {
      typed.back() = name;
      check(*verb.get_subcommand(name), typed);
    }
  };
  for (const std::string& name : VerbNames(app_)) {
    if (name != "help") check(*app_.get_subcommand(name), {name});
  }
  EXPECT_GT(verbs, 25u);
  EXPECT_EQ(Offered({""}), VerbNames(app_));
}

TEST_F(CompletionOffers, BeginWithWhatIsTyped) {
  EXPECT_EQ(Offered({"pass"}), Words{"passphrase"});
  EXPECT_EQ(Offered({"user", "add", "anna", "-g", "ad"}), Words{"admins"});
  EXPECT_EQ(Offered({"rule", "set", "/jpeg*", "@o"}), Words{"@operators"});
  EXPECT_EQ(Offered({"rule", "get", "/j"}), Words{"/jpeg*"});
  EXPECT_EQ(Offered({"help", "user", "de"}), Words{"delete"});
}

TEST_F(CompletionOffers, AreNoneWhereNothingIsKnown) {
  EXPECT_EQ(Offered({"lst", ""}), Words{});
  EXPECT_EQ(Offered({"user", "add", ""}), Words{});
  EXPECT_EQ(Offered({"help", "status", ""}), Words{});
  EXPECT_EQ(Offered({"rule", "get", "/jpeg*", ""}), Words{});
}

TEST_F(CompletionOffers, AreLeftToTheShellForFiles) {
  EXPECT_TRUE(OffersFor(app_, invocation_, {"wsse-check", ""}).files);
  EXPECT_TRUE(OffersFor(app_, invocation_, {"--config", ""}).files);
  EXPECT_FALSE(OffersFor(app_, invocation_, {"status", ""}).files);
}

}  // namespace
}  // namespace vigilactl
