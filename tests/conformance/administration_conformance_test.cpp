#include <gtest/gtest.h>

#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "bus_under_test.h"
#include "support/platform_fixture.h"
#include "support/recording_administration.h"
#include "support/recording_provider.h"
#include "support/text_thrown_by.h"
#include "tevra/interfaces/access_denied.h"
#include "tevra/interfaces/i_administration.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/osa/exception.h"

namespace conformance {
namespace {

using tevra::interfaces::AccessDenied;
using tevra::interfaces::IAdministration;
using tevra::interfaces::ISecurityProvider;

// Both interfaces at one destination, as the service has them.
class Administration : public BusConformance {
 protected:
  void SetUp() override {
    BusConformance::SetUp();
    if (!bus_) return;
    server().StartServer();
    administration_server_.reset(IAdministration::CreateServer(&server(), &administration_, {}));
    provider_server_.reset(ISecurityProvider::CreateServer(&server(), &provider_));
    proxy_.reset(IAdministration::CreateClient(&client()));
  }
  void TearDown() override {
    proxy_.reset();
    provider_server_.reset();
    administration_server_.reset();
  }

  support::RecordingAdministration administration_;
  support::RecordingProvider provider_;
  std::unique_ptr<IAdministration::IServer> administration_server_;
  std::unique_ptr<ISecurityProvider::IServer> provider_server_;
  std::unique_ptr<IAdministration> proxy_;
};

TEST_P(Administration, CarriesEveryOperation) {
  administration_.text = "{\"Code\":0,\"More\":\"\xc3\xa4\"}";
  const std::vector<std::string> answers = support::AskEverything(*proxy_, "t");
  EXPECT_EQ(answers, std::vector<std::string>(answers.size(), administration_.text));
  EXPECT_EQ(administration_.Calls(), support::EverythingAsked("t, admin"));
}

TEST_P(Administration, CarriesAPathOf64KiB) {
  const std::string path(65536, '/');
  proxy_->ExplainAccount("", "bob", path);
  EXPECT_EQ(administration_.Calls().back(), "ExplainAccount(, admin: bob " + path + ")");
}

TEST_P(Administration, CarriesRefusalsAndFailures) {
  administration_.failure = std::make_exception_ptr(AccessDenied("log on again"));
  EXPECT_THROW(proxy_->GetAccount("t", "n"), AccessDenied);
  EXPECT_EQ(support::TextThrownBy([&] { proxy_->GetAccount("t", "n"); }), "log on again");
  administration_.failure = std::make_exception_ptr(tevra::osa::Exception("no disk"));
  EXPECT_EQ(support::TextThrownBy([&] { proxy_->GetAccount("t", "n"); }), "no disk");
  EXPECT_EQ(administration_server_->RefusedCalls(), 2u);
}

TEST_P(Administration, StandsBesideTheFirstInterface) {
  const std::unique_ptr<ISecurityProvider> first(ISecurityProvider::CreateOneShotClient(&client()));
  EXPECT_TRUE(first->IsProtected("/p"));
  proxy_->GetAccount("t", "n");
  EXPECT_TRUE(first->IsProtected("/p"));
  EXPECT_EQ(provider_.Calls().size(), 2u);
  EXPECT_EQ(administration_.Calls().size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(EveryBus, Administration, EveryBus(), BusName);

}  // namespace
}  // namespace conformance
