#include "vigila/client/vigila_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/capturing_log.h"
#include "support/platform_fixture.h"
#include "support/recording_provider.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/osa/exception.h"
#include "vigila/check/explicit_time_source.h"
#include "vigila/check/fake_msg_bus.h"
#include "vigila/client/vigila.h"
#include "vigila/client/vigila_client_impl.h"

std::optional<bool> Cpp17Visit(std::string& token);

namespace vigila::client {
namespace {

using testing::ElementsAre;
using tevra::interfaces::ISecurityProvider;

// A client whose proxy speaks to a server over a bus within this process.
class VigilaClientTest : public testing::Test {
 protected:
  VigilaClientTest() {
    bus_.StartServer();
    VigilaClient::Impl::SetMaker([this] {
      return std::make_unique<VigilaClient::Impl>(
          std::unique_ptr<ISecurityProvider>(ISecurityProvider::CreateClient(&bus_)), clock_);
    });
    client_ = std::make_unique<VigilaClient>();
    Serve();
  }
  ~VigilaClientTest() override {
    client_.reset();
    VigilaClient::Impl::SetMaker({});
  }

  void Serve() { server_.reset(ISecurityProvider::CreateServer(&bus_, &provider_)); }

  support::CapturingLog log_;
  support::PlatformFixture platform_;
  tevra::check::ExplicitTimeSource clock_;
  tevra::check::fake::FakeMsgBus bus_;
  support::RecordingProvider provider_;
  std::unique_ptr<ISecurityProvider::IServer> server_;
  std::unique_ptr<VigilaClient> client_;
  std::string token_;
};

TEST_F(VigilaClientTest, BringsEveryQuestionToTheServerAndTheAnswerBack) {
  provider_.text = "12345678";
  provider_.list = {"/a", ""};
  provider_.credentials = "alice";
  EXPECT_TRUE(client_->Authenticate("alice", "secret", "cache", token_));
  EXPECT_EQ(token_, "12345678");
  EXPECT_TRUE(client_->AuthenticateHttp("u", "n", "h", true, "q", "c", "1", "r", "", token_));
  EXPECT_TRUE(client_->AuthenticateWsse("u", "d", "n", "c", "cache", token_));
  EXPECT_TRUE(client_->Authorize("t", "/p"));
  EXPECT_TRUE(client_->IsAuthenticated("t"));
  EXPECT_TRUE(client_->IsProtected("/p"));
  EXPECT_TRUE(client_->Logout("t"));
  EXPECT_EQ(client_->GetCredentials("t"), "alice");
  EXPECT_EQ(client_->GetNonce(), "12345678");
  EXPECT_THAT(client_->GetAllowedPaths("t"), ElementsAre("/a", ""));
  EXPECT_THAT(client_->GetAllowedPermissions("t"), ElementsAre("/a", ""));
  client_->Invalidate("alice");
  const std::vector<std::string> calls = provider_.Calls();
  EXPECT_THAT(calls,
              testing::IsSupersetOf({"Authenticate(true, YWxpY2U=, c2VjcmV0)",
                                     "AuthenticateHttp(false, u, n, h, true, q, c, 1, r)",
                                     "AuthenticateWsse(true, u, d, n, c)", "Authorize(t, /p)",
                                     "IsAuthenticated(t)", "IsProtected(/p)", "Logout(t)",
                                     "GetCredentials(t)", "GetNonce()", "GetAllowedPaths(t)",
                                     "GetAllowedPermissions(t)", "Invalidate(alice)"}));
}

TEST_F(VigilaClientTest, BringsTextsOfAnyBytesWhole) {
  const std::string bytes("\0\xff\xfe", 3);
  client_->Authenticate(bytes, bytes + bytes, "", token_);
  client_->AuthenticateHttp(bytes, bytes, bytes, true, bytes, bytes, bytes, bytes, "", token_);
  client_->AuthenticateWsse(bytes, bytes, bytes, bytes, "", token_);
  const std::string comma = ", ";
  EXPECT_THAT(provider_.Calls(), ElementsAre("Authenticate(false, AP/+, AP/+AP/+)",
                                             "AuthenticateHttp(false, " + bytes + comma + bytes +
                                                 comma + bytes + ", true, " + bytes + comma +
                                                 bytes + comma + bytes + comma + bytes + ")",
                                             "AuthenticateWsse(false, " + bytes + comma + bytes +
                                                 comma + bytes + comma + bytes + ")"));
}

TEST_F(VigilaClientTest, ServesACallerOfTheOldestKind) {
  provider_.text = "12345678";
  std::string token;
  EXPECT_EQ(Cpp17Visit(token), true);
  EXPECT_EQ(token, "12345678");
}

TEST_F(VigilaClientTest, ForgetsEveryAnswerWhenTheServerAnnouncesAChange) {
  EXPECT_TRUE(client_->Authorize("t", "/p"));
  provider_.flag = false;
  EXPECT_TRUE(client_->Authorize("t", "/p"));
  provider_.FireChangeListeners(true);
  EXPECT_FALSE(client_->Authorize("t", "/p"));
}

TEST_F(VigilaClientTest, ForgetsEveryAnswerWhenASessionWasEnded) {
  EXPECT_TRUE(client_->Authorize("t", "/p"));
  EXPECT_TRUE(client_->IsAuthenticated("t"));
  client_->Invalidate("alice");
  provider_.flag = false;
  EXPECT_FALSE(client_->Authorize("t", "/p"));
  EXPECT_FALSE(client_->IsAuthenticated("t"));
}

TEST_F(VigilaClientTest, DoesNotBelieveATokenThatIsTooLong) {
  provider_.text = "123456789";
  EXPECT_FALSE(client_->Authenticate("alice", "secret", "", token_));
  EXPECT_EQ(token_, "");
  provider_.text = std::string(1 << 20, 'x');
  EXPECT_FALSE(client_->AuthenticateHttp("u", "n", "h", true, "q", "c", "1", "r", "", token_));
  EXPECT_EQ(token_, "");
  EXPECT_EQ(client_->GetNonce(), "");
  EXPECT_EQ(log_.TextsOf("VigilaClient", tevra::core::Logger::kError),
            std::vector<std::string>(3, "could not connect to vigila"));
}

TEST_F(VigilaClientTest, GoesOnWithoutAServerAndWithTheNextOne) {
  server_.reset();
  EXPECT_FALSE(client_->Authorize("t", "/p"));
  EXPECT_EQ(client_->GetNonce(), "");
  Serve();
  EXPECT_TRUE(client_->Authorize("t", "/p"));
}

TEST_F(VigilaClientTest, OutlivesAServerThatRefusesEverything) {
  provider_.failure = std::make_exception_ptr(std::runtime_error("broken"));
  EXPECT_FALSE(client_->Authorize("t", "/p"));
  EXPECT_FALSE(client_->Logout("t"));
  provider_.failure = nullptr;
  EXPECT_TRUE(client_->Authorize("t", "/p"));
}

TEST(VigilaClientAlone, IsNotMadeOnAConfigurationThatCannotBeUsed) {
  support::PlatformFixture platform;
  platform.Set("MsgBus", "transport", "pigeon");
  EXPECT_THROW(VigilaClient(), tevra::osa::Exception);
  EXPECT_THROW(vigila_open(), tevra::osa::Exception);
}

// Over the real bus, with no one at the other end.
TEST(VigilaClientAlone, AnswersAtOnceThatNothingIsGranted) {
  support::CapturingLog log;
  const support::PlatformFixture platform;
  const VigilaClient client;
  std::string token = "before";
  EXPECT_FALSE(client.Authenticate("alice", "secret", "", token));
  EXPECT_EQ(token, "");
  EXPECT_FALSE(client.Authorize("t", "/p"));
  EXPECT_FALSE(client.IsProtected("/p"));
  EXPECT_EQ(client.GetNonce(), "");
  EXPECT_EQ(log.TextsOf("VigilaClient", tevra::core::Logger::kError).size(), 4u);
}

}  // namespace
}  // namespace vigila::client
