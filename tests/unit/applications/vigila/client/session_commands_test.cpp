#include "vigila/client/session_commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/recording_provider.h"

namespace vigila::client {
namespace {

using support::RecordingProvider;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(SessionCommands, PassTheirTextOnUnchanged) {
  RecordingProvider provider;
  InvalidateCommand invalidate("alice");
  invalidate.Execute(&provider);
  LogoutCommand logout("token");
  EXPECT_FALSE(logout.GetAnswer());
  logout.Execute(&provider);
  EXPECT_TRUE(logout.GetAnswer());
  provider.credentials = "alice";
  GetCredentialsCommand credentials("token");
  EXPECT_EQ(credentials.GetAnswer(), "");
  credentials.Execute(&provider);
  EXPECT_EQ(credentials.GetAnswer(), "alice");
  GetNonceCommand nonce;
  EXPECT_EQ(nonce.GetAnswer(), "");
  nonce.Execute(&provider);
  EXPECT_EQ(nonce.GetAnswer(), "answer");
  EXPECT_THAT(provider.Calls(), ElementsAre("Invalidate(alice)", "Logout(token)",
                                            "GetCredentials(token)", "GetNonce()"));
}

TEST(GetAllowedPathsCommand, KeepsOnlyTheLastList) {
  RecordingProvider provider;
  provider.list = {"/a", "/b", "/c"};
  GetAllowedPathsCommand command("token");
  EXPECT_THAT(command.GetAnswer(), IsEmpty());
  command.Execute(&provider);
  EXPECT_THAT(command.GetAnswer(), ElementsAre("/a", "/b", "/c"));
  provider.list = {"/d"};
  command.Execute(&provider);
  EXPECT_THAT(command.GetAnswer(), ElementsAre("/d"));
  EXPECT_EQ(provider.Calls()[0], "GetAllowedPaths(token)");
}

TEST(GetAllowedPermissionsCommand, KeepsOnlyTheLastList) {
  RecordingProvider provider;
  provider.list = {"x"};
  GetAllowedPermissionsCommand command("token");
  command.Execute(&provider);
  provider.list = {};
  command.Execute(&provider);
  EXPECT_THAT(command.GetAnswer(), IsEmpty());
  EXPECT_EQ(provider.Calls()[1], "GetAllowedPermissions(token)");
}

TEST(SessionCommands, AreNoKeys) {
  const LogoutCommand logout("token");
  EXPECT_FALSE(logout.MatchesToken("token"));
  EXPECT_FALSE(logout.IsLessThan(LogoutCommand("z")));
  EXPECT_FALSE(logout.IsEqual(logout));
}

}  // namespace
}  // namespace vigila::client
