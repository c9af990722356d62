#include "vigila/server/server_env.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "krand/interfaces/permission_initiator.h"
#include "support/at_rest_key_fixture.h"
#include "support/capturing_log.h"
#include "support/change_recorder.h"
#include "support/platform_fixture.h"
#include "tevra/msgbus/msg_bus.h"
#include "vigila/check/explicit_time_source.h"
#include "vigila/check/fake_msg_bus.h"
#include "vigila/server/at_rest_cipher.h"
#include "vigila/server/security_provider.h"
#include "vigila/server/start_failure.h"
#include "vigila/server/store_lock.h"

namespace vigila::server {
namespace {

class Environment : public testing::Test {
 protected:
  ~Environment() override { krand_core_set_trace_hook(nullptr, nullptr); }

  void TracePlatform() {
    krand_core_set_trace_hook(
        [](const char* call, void* data) {
          static_cast<std::vector<std::string>*>(data)->push_back(call);
        },
        &trace);
  }
  // A failed construction leaves the platform as it is: its process ends.
  static void ShutPlatformDown() {
    krand_core_settings_deinit();
    krand_core_deinit();
  }

  support::PlatformFixture platform;
  support::AtRestKeyFixture key;
  support::CapturingLog log;
  std::vector<std::string> trace;
};

static_assert(std::has_virtual_destructor_v<ServerEnv>);

TEST_F(Environment, UsesTheDoublesWhenItIsBuiltForATest) {
  const ServerEnv env(true);
  EXPECT_NE(dynamic_cast<tevra::check::ExplicitTimeSource*>(env.GetTimeSource()), nullptr);
  EXPECT_NE(dynamic_cast<tevra::check::fake::FakeMsgBus*>(env.GetMsgBus()), nullptr);
  EXPECT_TRUE(env.GetMsgBus()->IsRunning());
  EXPECT_NE(env.GetSecurityProvider(), nullptr);
  EXPECT_NE(env.GetPlatformContext(), nullptr);
}

TEST_F(Environment, UsesTheClockAndTheBusOfTheDeviceOtherwise) {
  const ServerEnv env;
  EXPECT_NE(dynamic_cast<tevra::osa::SystemTimeSource*>(env.GetTimeSource()), nullptr);
  EXPECT_NE(dynamic_cast<tevra::msgbus::MsgBus*>(env.GetMsgBus()), nullptr);
  EXPECT_TRUE(env.GetMsgBus()->IsRunning());
}

TEST_F(Environment, BringsThePlatformUpAndDownInItsOrder) {
  TracePlatform();
  {
    const ServerEnv env(true);
    EXPECT_EQ(trace,
              (std::vector<std::string>{
                  "krand_core_init", "krand_core_settings_init", "krand_core_logging_init",
                  "krand_core_ipc_initiator_init", "krand_api_device_information_initiator_init",
                  "krand_api_device_information_initiator_deinit", "KrandApiPermissionTargetRun"}));
    trace.clear();
  }
  // The contexts go before the permission target.
  EXPECT_EQ(trace, (std::vector<std::string>{"~KrandApiPermissionTargetRun",
                                             "krand_core_settings_deinit", "krand_core_deinit",
                                             "krand_core_ipc_deinit", "krand_core_logging_deinit",
                                             "~KrandApiPermissionTargetImplBase"}));
}

TEST_F(Environment, CanBeBuiltAgainAfterItWasTornDown) {
  for (int i = 0; i < 3; ++i) {
    const ServerEnv env(true);
    EXPECT_TRUE(env.GetMsgBus()->IsRunning());
  }
}

TEST_F(Environment, NeverDeletesItsProvider) {
  auto env = std::make_unique<ServerEnv>(true);
  SecurityProvider* const provider = env->GetSecurityProvider();
  support::ChangeRecorder recorder;
  recorder.Attach(*provider);
  env.reset();
  provider->FireChangeListeners(true);
  EXPECT_EQ(recorder.Values().size(), 1u);
  provider->RemoveChangeListeners(&recorder);
}

TEST_F(Environment, HasItsRulesFromTheStart) {
  ServerEnv env(true);
  EXPECT_TRUE(env.GetRuleManager().IsProtected("/inject.cgi"));
  EXPECT_FALSE(env.GetRuleManager().IsProtected("/no rule"));
}

TEST_F(Environment, TellsTheProvidersListenersOfAChangedRuleOnly) {
  ServerEnv env(true);
  support::ChangeRecorder recorder;
  recorder.Attach(*env.GetSecurityProvider());
  KrandApiPermissionInitiator initiator("permission");
  EXPECT_TRUE(initiator.GetAccessRule("/jpeg*").has_value());
  EXPECT_FALSE(initiator.SetAccessRule("/inject.cgi", "true"));
  EXPECT_TRUE(recorder.Values().empty());
  EXPECT_TRUE(initiator.SetAccessRule("/jpeg*", "@admins"));
  EXPECT_EQ(recorder.Values(), (std::vector<bool>{true}));
  EXPECT_TRUE(env.GetRuleManager().IsProtected("/jpeg/1"));
  env.GetSecurityProvider()->RemoveChangeListeners(&recorder);
}

TEST_F(Environment, ReadsTheConfiguredKeyFile) {
  const std::string path = platform.Dir().File("elsewhere.key");
  platform.Set("Applications/vigila", "key_file", path);
  std::filesystem::rename(key.KeyFile(), path);
  ServerEnv env(true);
  EXPECT_EQ(path, env.GetAtRestCipher().KeyFile());
  EXPECT_TRUE(env.GetAtRestCipher().Encrypt("secret").has_value()) << "it is open";
}

TEST_F(Environment, NamesTheKeyFileThatIsNotTheStores) {
  const std::string path = key.KeyFile();
  {
    ServerEnv env(true);
    const std::string stored = *env.GetAtRestCipher().Encrypt("secret");
    const std::string account = "{\"Groups\":8,\"Password\":\"" + stored + "\"}";
    ASSERT_EQ(krand_core_settings_set_json_value("user.alice", account.c_str()), KRAND_CORE_OK);
  }
  { const ServerEnv env(true); }
  std::filesystem::remove(path);
  AtRestKey::Create(path, AtRestKey::kMinimumBits);
  try {
    const ServerEnv env(true);
    FAIL() << "nothing thrown";
  } catch (const StartFailure& e) {
    EXPECT_EQ(e.cause(), StartFailure::kStore);
    EXPECT_EQ(e.what(), "key file " + path +
                            ": not the key of the only value in the settings, unless that is "
                            "damaged");
  }
  ShutPlatformDown();
}

TEST_F(Environment, NamesTheStoreThatCannotBeOpened) {
  platform.Set("Settings", "directory", platform.Dir().File("a file"));
  std::ofstream(platform.Dir().File("a file")) << "x";
  try {
    ServerEnv env(true);
    FAIL() << "nothing thrown";
  } catch (const StartFailure& e) {
    EXPECT_EQ(e.cause(), StartFailure::kStore);
    EXPECT_NE(std::string(e.what()).find(platform.Dir().File("a file") + "/vigila.db"),
              std::string::npos)
        << e.what();
  }
  ShutPlatformDown();
}

TEST_F(Environment, DoesNotOverwriteACorruptStore) {
  const std::string file = platform.SettingsDir() + "/vigila.db";
  const std::string junk(8192, 'j');
  std::ofstream(file) << junk;
  EXPECT_THROW(ServerEnv env(true), StartFailure);
  std::ifstream stream(file);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(stream), {}), junk);
  ShutPlatformDown();
}

TEST_F(Environment, WritesNothingToAStoreThatAnotherServerHolds) {
  auto other = std::make_unique<StoreLock>(platform.SettingsDir() + "/vigila.db");
  try {
    ServerEnv env(true);
    FAIL() << "nothing thrown";
  } catch (const StartFailure& e) {
    EXPECT_EQ(e.cause(), StartFailure::kInUse);
  }
  EXPECT_EQ(krand_core_settings_does_key_exist("rule.jpeg"), 0);
  ShutPlatformDown();
  other.reset();
  const ServerEnv env(true);
  EXPECT_EQ(krand_core_settings_does_key_exist("rule.jpeg"), 1);
}

TEST_F(Environment, HoldsItsStoreUntilItIsTornDown) {
  const std::string store = platform.SettingsDir() + "/vigila.db";
  auto env = std::make_unique<ServerEnv>(true);
  EXPECT_THROW(StoreLock lock(store), StartFailure);
  env.reset();
  const StoreLock lock(store);
}

TEST_F(Environment, IsNotBuiltWithoutTheDeviceInformationService) {
  platform.Set("DeviceInformation", "present", "false");
  TracePlatform();
  try {
    ServerEnv env(true);
    FAIL() << "nothing thrown";
  } catch (const tevra::osa::Exception& e) {
    EXPECT_STREQ(e.what(), "DeviceInformation: Service Not Available.");
  }
  // What was initialised stays so.
  for (const std::string& call : trace) EXPECT_NE(call, "krand_core_deinit");
  ShutPlatformDown();
}

TEST_F(Environment, SaysThatTheBusRefusedThePermissionTargetsName) {
  tevra::msgbus::MsgBus other;
  other.StartServer("krand.target.permission");
  try {
    ServerEnv env(true);
    FAIL() << "nothing thrown";
  } catch (const StartFailure& e) {
    EXPECT_EQ(e.cause(), StartFailure::kBus);
  }
  ShutPlatformDown();
}

TEST_F(Environment, NamesItsSettingsGroup) {
  EXPECT_STREQ(ServerEnv::kSettingsGroupName, "Applications/vigila");
}

TEST(EnvironmentsBase64, LeavesTheEmptyTextEmpty) {
  EXPECT_EQ(ServerEnv::Base64Encode(""), "");
  EXPECT_EQ(ServerEnv::Base64Decode(""), "");
}

TEST(EnvironmentsBase64, GivesBackAnyBytes) {
  std::string bytes;
  for (int i = 0; i < 256; ++i) {
    EXPECT_EQ(ServerEnv::Base64Decode(ServerEnv::Base64Encode(bytes)), bytes);
    bytes.push_back(static_cast<char>(i));
  }
  EXPECT_EQ(ServerEnv::Base64Encode(std::string("\0a\xff", 3)), "AGH/");
}

TEST(EnvironmentsBase64, DecodesNothingThatIsNotCanonical) {
  for (const char* text : {"A", "AA", "AA=", "AB==", "AA==\n", "A A=", "AA-_", "===="}) {
    EXPECT_EQ(ServerEnv::Base64Decode(text), "") << text;
  }
}

}  // namespace
}  // namespace vigila::server
