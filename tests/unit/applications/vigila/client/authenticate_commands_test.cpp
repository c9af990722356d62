#include "vigila/client/authenticate_commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <new>
#include <string>

#include "krand/base64/base64.h"
#include "support/recording_provider.h"
#include "tevra/osa/exception.h"
#include "vigila/client/access_commands.h"

namespace vigila::client {
namespace {

using krand::lib::Base64;
using support::RecordingProvider;
using testing::ElementsAre;

const std::string kZeroByteName("al\0ice", 6);

TEST(AuthenticateCommand, SendsNameAndPasswordEncoded) {
  RecordingProvider provider;
  provider.text = "12345678";
  AuthenticateCommand command("alice", "secret", true);
  EXPECT_EQ(command.GetAnswer(), "");
  command.Execute(&provider);
  EXPECT_THAT(provider.Calls(), ElementsAre("Authenticate(true, YWxpY2U=, c2VjcmV0)"));
  EXPECT_EQ(command.GetAnswer(), "12345678");
}

TEST(AuthenticateCommand, SendsCountedBytesWhole) {
  RecordingProvider provider;
  AuthenticateCommand command(kZeroByteName, std::string("\xff\0\x80", 3), false);
  command.Execute(&provider);
  EXPECT_THAT(provider.Calls(),
              ElementsAre("Authenticate(false, " + Base64::Encode(kZeroByteName) + ", /wCA)"));
  EXPECT_EQ(Base64::Decode(Base64::Encode(kZeroByteName)), kZeroByteName);
}

TEST(AuthenticateCommand, SendsEmptyAndHugeTexts) {
  RecordingProvider provider;
  AuthenticateCommand("", "", false).Execute(&provider);
  const std::string huge(1 << 20, 'x');
  AuthenticateCommand(huge, huge, false).Execute(&provider);
  EXPECT_EQ(provider.Calls()[0], "Authenticate(false, , )");
  EXPECT_EQ(provider.Calls()[1],
            "Authenticate(false, " + Base64::Encode(huge) + ", " + Base64::Encode(huge) + ")");
}

TEST(AuthenticateCommand, KeepsItsInitialAnswerWhenTheProviderThrows) {
  RecordingProvider provider;
  provider.failure = std::make_exception_ptr(tevra::osa::Exception("gone"));
  AuthenticateCommand command("alice", "secret", true);
  EXPECT_THROW(command.Execute(&provider), tevra::osa::Exception);
  EXPECT_EQ(command.GetAnswer(), "");
}

TEST(AuthenticateCommand, IsTheSameQuestionWithAndWithoutReuse) {
  const AuthenticateCommand with("alice", "secret", true);
  const AuthenticateCommand without("alice", "secret", false);
  EXPECT_FALSE(with.IsLessThan(without));
  EXPECT_FALSE(without.IsLessThan(with));
  EXPECT_TRUE(with.IsEqual(without));
}

TEST(AuthenticateCommand, OrdersByNameThenPassword) {
  const AuthenticateCommand first("alice", "b", false);
  const AuthenticateCommand second("alice", "c", false);
  const AuthenticateCommand third("bob", "a", false);
  EXPECT_TRUE(first.IsLessThan(second));
  EXPECT_FALSE(second.IsLessThan(first));
  EXPECT_TRUE(second.IsLessThan(third));
  EXPECT_FALSE(third.IsLessThan(second));
  EXPECT_FALSE(first.IsLessThan(first));
  EXPECT_FALSE(first.IsEqual(second));
  EXPECT_FALSE(first.IsEqual(third));
}

TEST(AuthenticateCommand, DoesNotMixUpWhereTheNameEnds) {
  const AuthenticateCommand left("ab", "c", false);
  const AuthenticateCommand right("a", "bc", false);
  EXPECT_FALSE(left.IsEqual(right));
  EXPECT_TRUE(right.IsLessThan(left));
}

TEST(AuthenticateCommand, MatchesTheTokenOfItsAnswer) {
  RecordingProvider provider;
  provider.text = "12345678";
  AuthenticateCommand command("alice", "secret", false);
  EXPECT_TRUE(command.MatchesToken("")) << "not executed yet";
  EXPECT_FALSE(command.MatchesToken("12345678"));
  command.Execute(&provider);
  EXPECT_TRUE(command.MatchesToken("12345678"));
  EXPECT_FALSE(command.MatchesToken(""));
  EXPECT_FALSE(command.MatchesToken("1234567"));
}

// The password fits into the object itself, whose memory outlives it here.
template <typename T, typename... Arguments>
bool LeavesPasswordBehind(const char* password, const Arguments&... arguments) {
  alignas(T) unsigned char memory[sizeof(T)];
  T* const command = new (memory) T(arguments...);
  const auto holds = [&] {
    const std::string text(password);
    return std::search(memory, memory + sizeof(T), text.begin(), text.end()) != memory + sizeof(T);
  };
  EXPECT_TRUE(holds());
  command->~T();
  return holds();
}

TEST(AuthenticateCommand, LeavesNoPasswordInItsMemory) {
  EXPECT_FALSE(LeavesPasswordBehind<AuthenticateCommand>("PASSWORD", "alice", "PASSWORD", false));
}

TEST(AuthenticateWsseCommand, LeavesNoPasswordInItsMemory) {
  EXPECT_FALSE(LeavesPasswordBehind<AuthenticateWsseCommand>("PASSWORD", "alice", "PASSWORD",
                                                             "nonce", "created", false));
}

TEST(AuthenticateHttpCommand, PassesItsTextsInTheProvidersOrder) {
  RecordingProvider provider;
  provider.text = "DISABLED";
  AuthenticateHttpCommand command("user", "nonce", "ha2", "qop", "cnonce", "nc", "response", true,
                                  false);
  EXPECT_EQ(command.GetAnswer(), "");
  command.Execute(&provider);
  EXPECT_THAT(provider.Calls(),
              ElementsAre("AuthenticateHttp(true, user, nonce, ha2, false, qop, cnonce, nc, "
                          "response)"));
  EXPECT_EQ(command.GetAnswer(), "DISABLED");
}

TEST(AuthenticateHttpCommand, PassesBothFlags) {
  RecordingProvider provider;
  AuthenticateHttpCommand("u", "", "", "", "", "", "", false, true).Execute(&provider);
  EXPECT_THAT(provider.Calls(), ElementsAre("AuthenticateHttp(false, u, , , true, , , , )"));
}

TEST(AuthenticateWsseCommand, PassesItsTextsUnchanged) {
  RecordingProvider provider;
  AuthenticateWsseCommand command(kZeroByteName, "digest", "nonce", "created", true);
  command.Execute(&provider);
  EXPECT_THAT(provider.Calls(),
              ElementsAre("AuthenticateWsse(true, " + kZeroByteName + ", digest, nonce, created)"));
  EXPECT_EQ(command.GetAnswer(), "answer");
}

TEST(AuthenticateWsseCommand, HasNoOrderAndMatchesNothing) {
  const AuthenticateWsseCommand left("a", "d", "n", "c", true);
  const AuthenticateWsseCommand right("b", "d", "n", "c", true);
  EXPECT_FALSE(left.IsLessThan(right));
  EXPECT_FALSE(right.IsLessThan(left));
  EXPECT_FALSE(left.IsEqual(left));
  EXPECT_FALSE(left.MatchesToken(""));
  const AuthenticateHttpCommand http("a", "", "", "", "", "", "", true, true);
  EXPECT_FALSE(http.IsEqual(http));
  EXPECT_FALSE(http.MatchesToken(""));
}

TEST(AuthenticateCommand, IsNeitherLessNorEqualToAnotherClass) {
  const AuthenticateCommand logon("a", "b", false);
  const AuthorizeCommand authorize("c", "d");
  EXPECT_FALSE(logon.IsLessThan(authorize));
  EXPECT_FALSE(authorize.IsLessThan(logon));
  EXPECT_FALSE(logon.IsEqual(authorize));
}

}  // namespace
}  // namespace vigila::client
