#include "vigila/server/vigila_dbus_server.h"

#include <gtest/gtest.h>

#include <memory>
#include <type_traits>

#include "support/capturing_log.h"
#include "support/platform_fixture.h"
#include "support/recording_provider.h"
#include "tevra/osa/exception.h"
#include "vigila/check/fake_msg_bus.h"
#include "vigila/server/start_failure.h"

namespace vigila::server {
namespace {

using tevra::interfaces::ISecurityProvider;
using tevra::msgbus::MsgBusMsg;

static_assert(std::has_virtual_destructor_v<VigilaDbusServer>);

class Endpoint : public testing::Test {
 protected:
  Endpoint() { bus.StartServer(); }

  support::PlatformFixture platform;
  support::CapturingLog log;
  tevra::check::fake::FakeMsgBus bus;
  support::RecordingProvider provider;
};

TEST_F(Endpoint, ServesTheProviderWhileItExists) {
  auto endpoint = std::make_unique<VigilaDbusServer>(&bus, &provider);
  const std::unique_ptr<ISecurityProvider> client(ISecurityProvider::CreateClient(&bus));
  EXPECT_TRUE(client->IsProtected("/p"));
  EXPECT_EQ(provider.Calls(), (std::vector<std::string>{"IsProtected(/p)"}));
  endpoint.reset();
  EXPECT_THROW(client->IsProtected("/p"), tevra::osa::Exception);
  EXPECT_TRUE(log.TextsOf("VigilaDbusServer").empty());
}

TEST_F(Endpoint, TellsAtItsEndHowManyCallsItRefused) {
  {
    const VigilaDbusServer endpoint(&bus, &provider);
    MsgBusMsg request(ISecurityProvider::kInterface, "GetUsers", ISecurityProvider::kDestination);
    request.SetSender({61234, {}});
    bus.SendMsg(request);
    bus.SendMsg(request);
  }
  EXPECT_EQ(log.TextsOf("VigilaDbusServer"),
            (std::vector<std::string>{"Calls refused for want of a role: 2"}));
}

TEST_F(Endpoint, BlamesTheBusThatRefusesTheName) {
  class RefusingBus : public tevra::check::fake::FakeMsgBus {
   public:
    void RegisterDestinationName(const std::string&) override {
      throw tevra::osa::Exception("taken");
    }
  };
  RefusingBus refusing;
  try {
    const VigilaDbusServer endpoint(&refusing, &provider);
    FAIL() << "nothing thrown";
  } catch (const StartFailure& e) {
    EXPECT_EQ(e.cause(), StartFailure::kBus);
    EXPECT_STREQ(e.what(), "taken");
  }
}

}  // namespace
}  // namespace vigila::server
