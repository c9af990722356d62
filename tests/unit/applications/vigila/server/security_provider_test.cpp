#include "vigila/server/security_provider.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "security_provider_fixture.h"
#include "support/provider_environment.h"
#include "tevra/osa/exception.h"

namespace vigila::server {
namespace {

using support::ServerUnderTest;
using support::UserJson;
using support::UsersJson;
using tevra::interfaces::ISecurityProvider;

const Strings kNobodyPermissions = {"00d8dc27-61d1-4b7d-85a8-519efb70d712",
                                    "d6f86cee-5c0c-41ce-a91f-b8563a2b94d6"};
const Strings kViewerPermissions = {
    "00d8dc27-61d1-4b7d-85a8-519efb70d712", "252ebb4c-d6cf-4f3d-892d-1b0d2431cb7a",
    "88049574-465a-4f41-89d4-d6d517e8c218", "d6f86cee-5c0c-41ce-a91f-b8563a2b94d6"};

TEST_F(SecurityProviderTest, PermissionsAreTextsInTheOrderOfTheirBytes) {
  AddAdministrator();
  Add("viewer", "pass", 8);
  EXPECT_EQ(kViewerPermissions, Provider().GetAllowedPermissions(Logon("viewer", "pass")));
  EXPECT_EQ(kNobodyPermissions, Provider().GetAllowedPermissions("NO_TOKEN"));
  EXPECT_EQ(kNobodyPermissions, Provider().GetAllowedPermissions("00000001"));
  EXPECT_EQ(11u, Provider().GetAllowedPermissions(Logon("admin", "adminpass")).size());
}

// Devices with unique passwords.
class SecurityProviderOnUniquePasswordDevice : public testing::Test {
 protected:
  SecurityProviderOnUniquePasswordDevice() {
    platform_.Set("DeviceInformation", "features", "SB327");
  }

  support::PlatformFixture platform_;
  support::AtRestKeyFixture key_;
};

TEST_F(SecurityProviderOnUniquePasswordDevice, NobodyHasNobodysPermissionsFromTheStart) {
  ServerUnderTest server;
  EXPECT_EQ(kNobodyPermissions, server.Provider().GetAllowedPermissions("NO_TOKEN"));
}

TEST_F(SecurityProviderOnUniquePasswordDevice, ProviderIsNotBuiltWhenTheDeviceCannotAnswer) {
  platform_.Set("DeviceInformation", "present", "false");
  support::CapturingLog log;
  try {
    ServerUnderTest server;
    FAIL() << "built";
  } catch (const tevra::osa::Exception& error) {
    EXPECT_STREQ("DeviceInformation: Service Not Available.", error.what());
  }
  // An environment that could not be built leaves the platform as it was then.
  EXPECT_EQ(KRAND_CORE_OK, krand_core_settings_deinit());
  EXPECT_EQ(KRAND_CORE_OK, krand_core_deinit());
}

TEST_F(SecurityProviderTest, ConstructionLeavesTheSettingsAlone) {
  EXPECT_EQ(0, krand_core_settings_does_key_exist("user.nobody"));
  EXPECT_EQ("{\"Users\":[{\"Name\":\"nobody\",\"Group\":16}]}", Provider().GetUsers());
  EXPECT_EQ(1, krand_core_settings_does_key_exist("user.nobody"));
}

TEST_F(SecurityProviderTest, OperationsOfOtherDevicesAreUnimplemented) {
  const ISecurityProvider& provider = Provider();
  try {
    provider.AllowHttpDigest();
    FAIL() << "returned";
  } catch (const tevra::osa::Exception& error) {
    EXPECT_EQ(tevra::osa::Exception::kUnimplemented, error.code());
  }
  try {
    provider.TestLdap("", "", "", 0, "", "", "", "", "", "", "");
    FAIL() << "returned";
  } catch (const tevra::osa::Exception& error) {
    EXPECT_EQ(tevra::osa::Exception::kUnimplemented, error.code());
  }
}

TEST_F(SecurityProviderTest, ExpirationComesFromTheStore) {
  Provider().EnforcePasswordPolicy(true);
  AddAdministrator();
  std::string expires = "before";
  EXPECT_EQ(-60, Provider().GetExpiration("admin", expires));
  EXPECT_EQ("2027-03-16T08:00:00Z", expires);
  EXPECT_EQ(0x7fffffff, Provider().GetExpiration("ghost", expires));
  EXPECT_EQ("", expires);
}

TEST_F(SecurityProviderTest, PasswordCheckComesFromTheStore) {
  AddAdministrator();
  EXPECT_EQ(0, Provider().ValidatePassword("admin", "", "long enough"));
  EXPECT_EQ(5, Provider().ValidatePassword("admin", "", "abc"));
  EXPECT_EQ(6, Provider().ValidatePassword("admin", "", std::string(65, 'x')));
  EXPECT_EQ(8, Provider().ValidatePassword("nobody", "", "abcd"));
  EXPECT_EQ(18, Provider().ValidatePassword("admin", "wrong", "abcd"));
}

TEST_F(SecurityProviderTest, PassphrasesComeFromTheStore) {
  EXPECT_EQ("", Provider().AddPassphrase("", "empty"));
  const std::string id = Provider().AddPassphrase("open \"sesame\"", "cave");
  ASSERT_EQ(37u, id.size());
  EXPECT_EQ("open \"sesame\"", Provider().GetPassphrase(id));
  EXPECT_NE(std::string::npos, Provider().GetPassphrases().find(id));
  EXPECT_NE(std::string::npos, Provider().GetPassphrases().find("cave"));
  EXPECT_TRUE(Provider().DeletePassphrase(id));
  EXPECT_FALSE(Provider().DeletePassphrase(id));
  EXPECT_EQ("", Provider().GetPassphrase(id));
}

TEST_F(SecurityProviderTest, MalformedAccountFailsOperationsUntilItIsMended) {
  ASSERT_EQ(KRAND_CORE_OK, krand_core_settings_set_json_value("user.bad", "{\"Group\":1}"));
  EXPECT_ANY_THROW(Provider().GetUsers());
  EXPECT_ANY_THROW(Provider().IsAuthenticated("12345678"));
  EXPECT_ANY_THROW(Provider().Authorize("NO_TOKEN", "/system"));
  EXPECT_ANY_THROW(Provider().AddUsers(UsersJson({UserJson("admin", "adminpass", 1)})));
  ASSERT_EQ(KRAND_CORE_OK, krand_core_settings_delete_key("user.bad"));
  AddAdministrator();
  EXPECT_TRUE(IsToken(Logon("admin", "adminpass")));
}

TEST_F(SecurityProviderTest, ListenersRunWhileTheListenerListIsLocked) {
  // A listener of another object cannot be removed while listeners run: the removal, started by
  // the listener itself, is seen to end only after the listener has returned.
  class Remover {
   public:
    explicit Remover(ISecurityProvider& provider) : provider_(provider) {}
    ~Remover() { remover_.join(); }
    void OnChange(const bool&) {
      running_ = true;
      remover_ = std::thread([this] {
        started_ = true;
        provider_.RemoveChangeListeners(this);
        removed_while_running_ = running_.load();
      });
      while (!started_) std::this_thread::yield();
      for (int i = 0; i < 1000; ++i) std::this_thread::yield();
      running_ = false;
    }
    bool RemovedWhileRunning() {
      remover_.join();
      remover_ = std::thread([] {});
      return removed_while_running_;
    }

   private:
    ISecurityProvider& provider_;
    std::atomic<bool> running_ = false;
    std::atomic<bool> started_ = false;
    std::atomic<bool> removed_while_running_ = false;
    std::thread remover_;
  };
  AddAdministrator();
  Remover remover(Provider());
  using Delegate =
      tevra::core::VoidObjectMethodDelegate1<Remover, void (Remover::*)(const bool&), bool>;
  Provider().AddChangeListener(std::make_unique<Delegate>(&remover, &Remover::OnChange));
  EXPECT_EQ(0, Provider().DeleteUsers({}));
  EXPECT_FALSE(remover.RemovedWhileRunning());
}

}  // namespace
}  // namespace vigila::server
