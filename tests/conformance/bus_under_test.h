#ifndef TESTS_CONFORMANCE_BUS_UNDER_TEST_H_
#define TESTS_CONFORMANCE_BUS_UNDER_TEST_H_

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tevra/msgbus/i_msg_bus.h"

namespace conformance {

enum class BusKind { kFake, kDirect, kBroker };

// A server's bus and a client's bus that reach each other. On the fake they are one object and
// everything happens on the caller's thread; on the others they are two, and handlers run on the
// dispatch thread of the bus they were registered on. Neither is started.
class BusUnderTest {
 public:
  // Null with a reason in `why_not` when this machine cannot run the kind.
  static std::unique_ptr<BusUnderTest> Create(BusKind kind, std::string* why_not);
  virtual ~BusUnderTest() = default;

  virtual tevra::msgbus::IMsgBus& Server() = 0;
  virtual tevra::msgbus::IMsgBus& Client() = 0;
  // Whether a client that watches a destination hears of its appearance.
  virtual bool HasPeers() const = 0;
};

// Base of every conformance suite:
//   TEST_P(MySuite, DoesThis) { server().StartServer("tevra.Test"); ... }
//   INSTANTIATE_TEST_SUITE_P(EveryBus, MySuite, conformance::EveryBus(), conformance::BusName);
class BusConformance : public ::testing::TestWithParam<BusKind> {
 protected:
  void SetUp() override {
    std::string why_not;
    bus_ = BusUnderTest::Create(GetParam(), &why_not);
    if (!bus_) GTEST_SKIP() << why_not;
  }

  tevra::msgbus::IMsgBus& server() { return bus_->Server(); }
  tevra::msgbus::IMsgBus& client() { return bus_->Client(); }
  bool has_peers() const { return bus_->HasPeers(); }

  std::unique_ptr<BusUnderTest> bus_;
};

inline auto EveryBus() {
  return ::testing::Values(BusKind::kFake, BusKind::kDirect, BusKind::kBroker);
}

inline std::string BusName(const ::testing::TestParamInfo<BusKind>& info) {
  switch (info.param) {
    case BusKind::kFake:
      return "Fake";
    case BusKind::kDirect:
      return "Direct";
    case BusKind::kBroker:
      return "Broker";
  }
  return "Unknown";
}

}  // namespace conformance

#endif  // TESTS_CONFORMANCE_BUS_UNDER_TEST_H_
