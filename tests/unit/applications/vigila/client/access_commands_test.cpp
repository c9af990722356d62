#include "vigila/client/access_commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/recording_provider.h"
#include "tevra/osa/exception.h"

namespace vigila::client {
namespace {

using support::RecordingProvider;
using testing::ElementsAre;

TEST(AuthorizeCommand, AsksForTokenAndPath) {
  RecordingProvider provider;
  AuthorizeCommand command("token", "/path");
  EXPECT_FALSE(command.GetAnswer());
  command.Execute(&provider);
  EXPECT_THAT(provider.Calls(), ElementsAre("Authorize(token, /path)"));
  EXPECT_TRUE(command.GetAnswer());
}

TEST(AuthorizeCommand, OrdersByTokenThenPath) {
  const AuthorizeCommand first("a", "/y");
  const AuthorizeCommand second("a", "/z");
  const AuthorizeCommand third("b", "/x");
  EXPECT_TRUE(first.IsLessThan(second));
  EXPECT_TRUE(second.IsLessThan(third));
  EXPECT_FALSE(third.IsLessThan(first));
  EXPECT_TRUE(first.IsEqual(AuthorizeCommand("a", "/y")));
  EXPECT_FALSE(first.IsEqual(second));
  EXPECT_FALSE(second.IsEqual(third));
  EXPECT_FALSE(AuthorizeCommand("ab", "c").IsEqual(AuthorizeCommand("a", "bc")));
}

TEST(AuthorizeCommand, MatchesItsTokenArgument) {
  const AuthorizeCommand command("token", "/path");
  EXPECT_TRUE(command.MatchesToken("token"));
  EXPECT_FALSE(command.MatchesToken("toke"));
  EXPECT_FALSE(command.MatchesToken("/path"));
  EXPECT_TRUE(AuthorizeCommand("", "/path").MatchesToken(""));
}

TEST(AuthorizeCommand, IsNotComparableToAnotherClass) {
  const AuthorizeCommand authorize("a", "b");
  const IsAuthenticatedCommand authenticated("c");
  EXPECT_FALSE(authorize.IsLessThan(authenticated));
  EXPECT_FALSE(authenticated.IsLessThan(authorize));
  EXPECT_FALSE(authorize.IsEqual(authenticated));
  EXPECT_FALSE(authenticated.IsEqual(authorize));
  EXPECT_FALSE(IsProtectedCommand("c").IsEqual(authenticated));
  EXPECT_FALSE(IsProtectedCommand("b").IsLessThan(authenticated));
}

TEST(IsAuthenticatedCommand, AsksForItsToken) {
  RecordingProvider provider;
  IsAuthenticatedCommand command("token");
  EXPECT_FALSE(command.GetAnswer());
  command.Execute(&provider);
  EXPECT_THAT(provider.Calls(), ElementsAre("IsAuthenticated(token)"));
  EXPECT_TRUE(command.GetAnswer());
  EXPECT_TRUE(command.MatchesToken("token"));
  EXPECT_FALSE(command.MatchesToken("other"));
  EXPECT_TRUE(command.IsEqual(IsAuthenticatedCommand("token")));
  EXPECT_FALSE(command.IsEqual(IsAuthenticatedCommand("tokem")));
}

TEST(IsProtectedCommand, AsksForItsPath) {
  RecordingProvider provider;
  IsProtectedCommand command("/path");
  EXPECT_FALSE(command.GetAnswer());
  command.Execute(&provider);
  EXPECT_THAT(provider.Calls(), ElementsAre("IsProtected(/path)"));
  EXPECT_TRUE(command.GetAnswer());
  EXPECT_FALSE(command.MatchesToken("/path")) << "concerns no token";
  EXPECT_TRUE(command.IsEqual(IsProtectedCommand("/path")));
  EXPECT_FALSE(command.IsEqual(IsProtectedCommand("/Path")));
}

TEST(IsProtectedCommand, KeepsItsInitialAnswerWhenTheProviderThrows) {
  RecordingProvider provider;
  provider.failure = std::make_exception_ptr(tevra::osa::Exception("gone"));
  IsProtectedCommand command("/path");
  EXPECT_THROW(command.Execute(&provider), tevra::osa::Exception);
  EXPECT_FALSE(command.GetAnswer());
}

// Every text is less than all that follow it.
TEST(CommandOrder, IsThatOfUnsignedBytesAndThenOfTheLength) {
  const std::vector<std::string> ascending = {"",
                                              std::string(1, '\0'),
                                              std::string("\0\0", 2),
                                              std::string("\0a", 2),
                                              "A",
                                              "a",
                                              std::string("a\0", 2),
                                              "aa",
                                              "ab",
                                              "b",
                                              "\x7f",
                                              "\x80",
                                              "\xff"};
  for (std::size_t i = 0; i < ascending.size(); ++i) {
    for (std::size_t j = 0; j < ascending.size(); ++j) {
      const std::string& left = ascending[i];
      const std::string& right = ascending[j];
      EXPECT_EQ(IsProtectedCommand(left).IsLessThan(IsProtectedCommand(right)), i < j);
      EXPECT_EQ(IsAuthenticatedCommand(left).IsLessThan(IsAuthenticatedCommand(right)), i < j);
      EXPECT_EQ(AuthorizeCommand(left, "x").IsLessThan(AuthorizeCommand(right, "x")), i < j);
      EXPECT_EQ(AuthorizeCommand("x", left).IsLessThan(AuthorizeCommand("x", right)), i < j);
      EXPECT_EQ(IsProtectedCommand(left).IsEqual(IsProtectedCommand(right)), i == j);
    }
  }
}

}  // namespace
}  // namespace vigila::client
