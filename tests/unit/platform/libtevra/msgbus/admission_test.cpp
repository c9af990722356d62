#include "tevra/msgbus/direct/admission.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "support/platform_fixture.h"

namespace tevra::msgbus {
namespace {

constexpr gid_t kServiceGroup = 61001;
constexpr gid_t kAdminGroup = 61002;
constexpr int kLowDescriptor = 10;

class AdmissionTest : public testing::Test {
 protected:
  AdmissionTest() {
    platform_.Set("Access", "service_groups", std::to_string(kServiceGroup));
    platform_.Set("Access", "admin_groups", std::to_string(kAdminGroup));
    config_.max_connections = 5;
    config_.max_connections_per_uid = 3;
    admission_.emplace(config_);
  }
  std::string RefusalOf(const Credentials& caller, int descriptor = kLowDescriptor) {
    const auto refusal = admission_->Enter(caller, descriptor);
    return refusal ? std::string(refusal->error_name) + ": " + refusal->text : "";
  }
  static Credentials Service(uid_t uid) { return {uid, {kServiceGroup}}; }
  static Credentials Admin(uid_t uid) { return {uid, {kAdminGroup}}; }

  support::PlatformFixture platform_;
  BusConfig config_ = BusConfig::FromPlatform();
  std::optional<Admission> admission_;
};

TEST_F(AdmissionTest, TellsWhoHasNoRoleAndCountsThemNowhere) {
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(RefusalOf({61234, {100}}),
              "org.freedesktop.DBus.Error.AccessDenied: the caller is in none of the groups that "
              "hold the role 'service' or 'admin'");
  }
  EXPECT_EQ(RefusalOf({61234, {kServiceGroup}}), "");
}

TEST_F(AdmissionTest, BoundsEachUser) {
  for (int i = 0; i < 3; ++i) EXPECT_EQ(RefusalOf(Service(7)), "");
  EXPECT_EQ(RefusalOf(Service(7)),
            "tevra.msgbus.Error.Limit: user 7 has as many connections as a user may");
  EXPECT_EQ(RefusalOf(Service(8)), "");
  admission_->Leave(Service(7));
  EXPECT_EQ(RefusalOf(Service(7)), "");
}

TEST_F(AdmissionTest, BoundsEachRoleSoThatServicesNeverKeepAnAdminOut) {
  for (uid_t uid = 1; uid <= 5; ++uid) EXPECT_EQ(RefusalOf(Service(uid)), "");
  EXPECT_EQ(RefusalOf(Service(6)),
            "tevra.msgbus.Error.Limit: the callers with the role 'service' have as many "
            "connections as they may");
  EXPECT_EQ(RefusalOf(Admin(6)), "");
  EXPECT_EQ(RefusalOf({6, {kServiceGroup, kAdminGroup}}), "") << "counts as an admin";
  admission_->Leave(Service(5));
  EXPECT_EQ(RefusalOf(Service(6)), "");
}

TEST_F(AdmissionTest, AlwaysLetsRootAndTheOwnUserIn) {
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(RefusalOf({0, {}}, 1 << 20), "");
    EXPECT_EQ(RefusalOf({geteuid(), {}}, 1 << 20), "");
  }
  EXPECT_EQ(RefusalOf(Service(7)), "");
  for (int i = 0; i < 1000; ++i) admission_->Leave({0, {}});
}

TEST_F(AdmissionTest, KeepsTheLastDescriptorsForTheOwner) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const int last = static_cast<int>(limit.rlim_cur) - 32;
  EXPECT_EQ(RefusalOf(Service(7), last),
            "tevra.msgbus.Error.Limit: the server has no descriptor left");
  EXPECT_EQ(RefusalOf(Service(7), last - 1), "");
}

TEST_F(AdmissionTest, TellsTheRoles) {
  EXPECT_EQ(admission_->RolesOf({7, {}}), 0u);
  EXPECT_EQ(admission_->RolesOf(Service(7)), 1u);
  EXPECT_EQ(admission_->RolesOf(Admin(7)), 2u);
  EXPECT_EQ(admission_->RolesOf({0, {}}), 3u);
}

}  // namespace
}  // namespace tevra::msgbus
