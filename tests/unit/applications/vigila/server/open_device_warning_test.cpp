#include "vigila/server/open_device_warning.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/provider_environment.h"
#include "vigila/check/fake_msg_bus.h"

namespace vigila::server {
namespace {

// A bus whose one timer runs when the test says so.
class TimedBus final : public tevra::check::fake::FakeMsgBus {
 public:
  uint64_t StartTimer(std::chrono::milliseconds interval, std::function<void()> task) override {
    interval_ = interval;
    task_ = std::move(task);
    return 7;
  }
  void StopTimer(uint64_t timer) override {
    if (timer == 7) task_ = nullptr;
  }
  std::chrono::milliseconds Interval() const { return interval_; }
  bool HasTimer() const { return task_ != nullptr; }
  void PassAnInterval() const { task_(); }

 private:
  std::chrono::milliseconds interval_{};
  std::function<void()> task_;
};

class OpenDeviceWarningTest : public support::ProviderTest {
 protected:
  std::vector<std::string> Warnings() const {
    return log_.TextsOf("VigilaServer", tevra::core::Logger::kWarning);
  }

  TimedBus bus_;
  const std::string text_ =
      "There is no administrator: every token counts as authenticated until one is added "
      "(vigilactl user add NAME -g admins)";
};

TEST_F(OpenDeviceWarningTest, IsWrittenAtOnceAndEveryHour) {
  const OpenDeviceWarning warning(bus_);
  EXPECT_EQ(Warnings(), std::vector<std::string>{text_});
  EXPECT_EQ(bus_.Interval(), std::chrono::hours(1));
  bus_.PassAnInterval();
  bus_.PassAnInterval();
  EXPECT_EQ(Warnings(), std::vector<std::string>(3, text_));
}

TEST_F(OpenDeviceWarningTest, EndsWithTheFirstAdministrator) {
  const OpenDeviceWarning warning(bus_);
  Add("viewer", "pass", 8);
  bus_.PassAnInterval();
  EXPECT_EQ(Warnings().size(), 2u);
  AddAdministrator();
  bus_.PassAnInterval();
  EXPECT_EQ(Warnings().size(), 2u);
}

TEST_F(OpenDeviceWarningTest, IsNotWrittenOfADeviceThatIsSetUp) {
  AddAdministrator();
  const OpenDeviceWarning warning(bus_);
  bus_.PassAnInterval();
  EXPECT_EQ(Warnings(), std::vector<std::string>());
}

TEST_F(OpenDeviceWarningTest, StopsItsTimer) {
  { const OpenDeviceWarning warning(bus_); }
  EXPECT_FALSE(bus_.HasTimer());
}

}  // namespace
}  // namespace vigila::server
