#include "bus_under_test.h"

#include <utility>

#include "support/platform_fixture.h"
#include "support/private_dbus_daemon.h"
#include "tevra/msgbus/msg_bus.h"
#include "vigila/check/fake_msg_bus.h"

namespace conformance {
namespace {

class FakeBusUnderTest final : public BusUnderTest {
 public:
  tevra::msgbus::IMsgBus& Server() override { return bus_; }
  tevra::msgbus::IMsgBus& Client() override { return bus_; }
  bool HasPeers() const override { return false; }

 private:
  tevra::check::fake::FakeMsgBus bus_;
};

class DirectBusUnderTest final : public BusUnderTest {
 public:
  tevra::msgbus::IMsgBus& Server() override { return server_; }
  tevra::msgbus::IMsgBus& Client() override { return client_; }
  bool HasPeers() const override { return true; }

 private:
  support::PlatformFixture platform_;
  tevra::msgbus::MsgBus server_;
  tevra::msgbus::MsgBus client_;
};

class BrokerBusUnderTest final : public BusUnderTest {
 public:
  explicit BrokerBusUnderTest(std::unique_ptr<support::PrivateDbusDaemon> daemon)
      : daemon_(std::move(daemon)) {
    platform_.Set("MsgBus", "transport", "broker");
    platform_.Set("MsgBus", "address", daemon_->address());
    server_ = std::make_unique<tevra::msgbus::MsgBus>();
    client_ = std::make_unique<tevra::msgbus::MsgBus>();
  }

  tevra::msgbus::IMsgBus& Server() override { return *server_; }
  tevra::msgbus::IMsgBus& Client() override { return *client_; }
  bool HasPeers() const override { return true; }

 private:
  std::unique_ptr<support::PrivateDbusDaemon> daemon_;
  support::PlatformFixture platform_;
  std::unique_ptr<tevra::msgbus::MsgBus> server_;
  std::unique_ptr<tevra::msgbus::MsgBus> client_;
};

}  // namespace

std::unique_ptr<BusUnderTest> BusUnderTest::Create(BusKind kind, std::string* why_not) {
  switch (kind) {
    case BusKind::kFake:
      return std::make_unique<FakeBusUnderTest>();
    case BusKind::kDirect:
      return std::make_unique<DirectBusUnderTest>();
    case BusKind::kBroker: {
      auto daemon = support::PrivateDbusDaemon::Start();
      if (daemon) return std::make_unique<BrokerBusUnderTest>(std::move(daemon));
      *why_not = "dbus-daemon is not installed";
      return nullptr;
    }
  }
  return nullptr;
}

}  // namespace conformance
