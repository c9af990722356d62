#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "support/capturing_log.h"
#include "support/device_with_accounts.h"
#include "tevra/core/platform_config.h"
#include "vigila/client/vigila_client.h"

namespace {

using support::Clock;
using support::DaemonProcess;
using vigila::client::VigilaClient;

constexpr char kPath[] = "/jpeg/1";

class AClient : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(camera_.Start()) << camera_.device.Log();
    tevra::core::PlatformConfig::LoadFrom(camera_.device.ConfigFile());
    tevra::core::Logger::SetLevel(tevra::core::Logger::kError);
    client_ = std::make_unique<VigilaClient>();
    LogOn();
  }
  void TearDown() override { client_.reset(); }

  void LogOn() {
    ASSERT_TRUE(client_->Authenticate("view", "view's secret", "", token_));
    ASSERT_TRUE(client_->Authorize(token_, kPath));
  }
  // Asks without a pause, so that no answer ever gets old; false when the answer stayed true for
  // longer than any test should have to wait.
  static bool BecomesFalse(const std::function<bool()>& question) {
    const auto until = Clock::now() + std::chrono::seconds(20);
    while (Clock::now() < until) {
      if (!question()) return true;
    }
    return false;
  }
  bool GrantEnds() {
    return BecomesFalse([this] { return client_->Authorize(token_, kPath); });
  }
  int Ctl(const std::vector<std::string>& arguments) {
    return camera_.device.Ctl(arguments).exit_code;
  }
  void StartAgain() {
    ASSERT_EQ(camera_.device.LaunchAndAwaitReady(), DaemonProcess::Start::kReady);
  }

  support::CapturingLog log_;  // the daemon dies on purpose: no one need read of it
  support::DeviceWithAccounts camera_;
  std::unique_ptr<VigilaClient> client_;
  std::string token_;
};

TEST_F(AClient, HearsOfALogoutOverAnotherConnection) {
  EXPECT_EQ(Ctl({"logout", token_}), 0);
  EXPECT_TRUE(GrantEnds());
}

TEST_F(AClient, HearsOfAnInvalidationOverAnotherConnection) {
  EXPECT_TRUE(client_->IsAuthenticated(token_));
  EXPECT_EQ(Ctl({"invalidate", "view"}), 0);
  EXPECT_TRUE(GrantEnds());
  EXPECT_TRUE(BecomesFalse([this] { return client_->IsAuthenticated(token_); }));
}

TEST_F(AClient, HearsOfARuleChangeOverAnotherConnection) {
  EXPECT_EQ(Ctl({"rule", "set", "/jpeg*", "@admins"}), 0);
  EXPECT_TRUE(GrantEnds());
}

TEST_F(AClient, HearsOfAnAccountChangeOverAnotherConnection) {
  EXPECT_EQ(camera_.device.CtlWithSecret("another secret", {"user", "modify", "view"}).exit_code,
            0);
  EXPECT_TRUE(BecomesFalse([this] {
    std::string token;
    return client_->Authenticate("view", "view's secret", "", token);
  }));
}

TEST_F(AClient, HearsOfItsOwnLogout) {
  EXPECT_TRUE(client_->Logout(token_));
  EXPECT_TRUE(GrantEnds());
}

TEST_F(AClient, KeepsNoAnswerOfADaemonThatHasDied) {
  EXPECT_FALSE(client_->IsProtected("/system"));
  EXPECT_TRUE(client_->Authorize("NO_TOKEN", "/system"));
  camera_.device.Stop(SIGKILL);
  EXPECT_TRUE(GrantEnds());
  EXPECT_TRUE(BecomesFalse([this] { return client_->Authorize("NO_TOKEN", "/system"); }));
  EXPECT_TRUE(BecomesFalse([this] {
    std::string token;
    return client_->Authenticate("view", "view's secret", "", token);
  }));
}

TEST_F(AClient, AnswersAtOnceWhileTheDaemonIsDeadAndWorksWithTheNextOne) {
  camera_.device.Stop(SIGKILL);
  ASSERT_TRUE(GrantEnds());
  const auto start = Clock::now();
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(client_->GetNonce(), "");
    EXPECT_FALSE(client_->IsProtected("/inject.cgi")) << "a guess";
    EXPECT_FALSE(client_->Authorize("NO_TOKEN", "/inject.cgi"));
  }
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(5)) << "none of them waited for a deadline";
  StartAgain();
  EXPECT_FALSE(client_->Authorize(token_, kPath)) << "the session died with the daemon";
  LogOn();
  EXPECT_TRUE(BecomesFalse([this] { return !client_->IsProtected("/inject.cgi"); }))
      << "the guess outlived the daemon's return";
}

TEST_F(AClient, BringsEveryByteOfANameAPasswordAndADigest) {
  std::string token = "before";
  EXPECT_FALSE(client_->Authenticate("view", std::string("view's secret\0", 14), "", token));
  EXPECT_EQ(token, "NO_TOKEN") << "nothing ends at the zero byte";
  EXPECT_FALSE(client_->Authenticate(std::string("view\0", 5), "view's secret", "", token));
  EXPECT_EQ(token, "NO_TOKEN");
  const std::string huge(1 << 19, '\xff');
  EXPECT_FALSE(client_->Authenticate(huge, huge, "", token));
  EXPECT_EQ(token, "NO_TOKEN") << "half a mebibyte each arrived";
  EXPECT_FALSE(client_->AuthenticateWsse(huge, huge, huge, "now", "", token));
  EXPECT_EQ(token, "NO_TOKEN");
  EXPECT_FALSE(client_->AuthenticateHttp(huge, "n", huge, true, "auth", "c", "1", huge, "", token));
  EXPECT_EQ(token, "NO_TOKEN");
  LogOn();
}

}  // namespace
