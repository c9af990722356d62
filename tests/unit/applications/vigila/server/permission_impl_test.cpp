#include "vigila/server/permission_impl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "support/capturing_log.h"
#include "support/settings_faults.h"
#include "support/settings_fixture.h"
#include "tevra/osa/exception.h"
#include "vigila/model/user.h"
#include "vigila/server/rule_manager.h"

namespace vigila::server {

// Makes a static path changeable, which construction never does.
struct PermissionImplPeer {
  static void MakeChangeable(PermissionImpl& target, const std::string& path) {
    target.changeable_paths_.push_back(path);
  }
  static std::string ReadRuleSetting(PermissionImpl& target, const std::string& path) {
    return target.ReadRuleSetting(path);
  }
  static std::map<std::string, std::string>& SettingNames() {
    return PermissionImpl::kRuleSettingNames;
  }
};

namespace {

constexpr const char* kOlderGroup = "Applications/vigila/Rules/Dynamic";

class PermissionImplTest : public testing::Test {
 protected:
  ~PermissionImplTest() override { krand_core_logging_deinit(context_); }

  void SetUp() override {
    ASSERT_EQ(krand_core_logging_init("VIGILA_KRAND", &context_), KRAND_CORE_OK);
  }

  std::unique_ptr<PermissionImpl> NewTarget(bool test_settings = true) {
    return std::make_unique<PermissionImpl>(rules_, context_, test_settings);
  }
  bool IsOpen(const std::string& path) const { return rules_.HasAccess(path, nullptr); }

  static std::optional<std::string> Get(PermissionImpl& target, const char* path) {
    char* rule = nullptr;
    if (target.getAccessRule(path, &rule) != 0) {
      EXPECT_EQ(rule, nullptr);
      return std::nullopt;
    }
    const std::string text = rule;
    std::free(rule);
    return text;
  }
  support::CapturingLog log_;
  support::SettingsFixture settings_;
  RuleManager rules_;
  void* context_ = nullptr;
};

TEST_F(PermissionImplTest, WritesTheDefaultsAtTheFirstStart) {
  const auto target = NewTarget();
  for (const char* setting : {"rule.jpeg", "rule.rtsp", "rule.web_socket"}) {
    EXPECT_EQ(settings_.GetString(setting), "{88049574-465a-4f41-89d4-d6d517e8c218}") << setting;
  }
  EXPECT_EQ(settings_.Keys().size(), 3u) << "static rules are not kept in the settings";
  for (const char* path : {"/jpeg", "/rtsp/stream1", "/ws/events"}) {
    EXPECT_TRUE(rules_.IsProtected(path)) << path;
  }
}

TEST_F(PermissionImplTest, InstallsTheStaticRules) {
  const auto target = NewTarget();
  EXPECT_TRUE(target->isRunnable());
  EXPECT_EQ(Get(*target, "/inject.cgi"), "@admins");
  EXPECT_EQ(Get(*target, "/system"), "true");
  EXPECT_EQ(Get(*target, "/control/*"), "{d6f86cee-5c0c-41ce-a91f-b8563a2b94d6}");
  EXPECT_EQ(Get(*target, "/onvif/*"), "{00d8dc27-61d1-4b7d-85a8-519efb70d712}");
  EXPECT_EQ(Get(*target, "/halvard-instrument/cgi/*"), "{00d8dc27-61d1-4b7d-85a8-519efb70d712}");
  EXPECT_FALSE(IsOpen("/onvif"));
  EXPECT_TRUE(IsOpen("/system"));
}

TEST_F(PermissionImplTest, TakesAnOlderValueOverIntoAnEmptySetting) {
  settings_.Set(kOlderGroup, "jpeg*", "true");
  settings_.Set(kOlderGroup, "rtsp/*", "@admins");
  settings_.PutString("rule.jpeg", "");
  const auto target = NewTarget(false);
  EXPECT_EQ(settings_.GetString("rule.jpeg"), "true");
  EXPECT_EQ(settings_.GetString("rule.rtsp"), "@admins");
  EXPECT_EQ(settings_.GetString("rule.web_socket"), PermissionImpl::kReadMediaAccess);
  EXPECT_TRUE(IsOpen("/jpeg/1"));
  EXPECT_EQ(Get(*target, "/rtsp/*"), "@admins");
}

TEST_F(PermissionImplTest, PrefersTheSettingToAnOlderValue) {
  settings_.Set(kOlderGroup, "jpeg*", "false");
  settings_.PutString("rule.jpeg", "true");
  const auto target = NewTarget(false);
  EXPECT_EQ(Get(*target, "/jpeg*"), "true");
  EXPECT_EQ(settings_.GetString("rule.jpeg"), "true");
}

TEST_F(PermissionImplTest, SeesNoOlderValuesWithTestSettings) {
  settings_.Set(kOlderGroup, "jpeg*", "true");
  const auto target = NewTarget(true);
  EXPECT_EQ(Get(*target, "/jpeg*"), PermissionImpl::kReadMediaAccess);
}

TEST_F(PermissionImplTest, RefusesToChangeStaticRules) {
  const auto target = NewTarget();
  for (const char* path :
       {"/system", "/inject.cgi", "/control/*", "/onvif", "/jpeg", "/jpeg/1", "", "rule.jpeg"}) {
    EXPECT_EQ(target->setAccessRule(path, "@admins"), 1) << path;
  }
  EXPECT_EQ(Get(*target, "/system"), "true");
  EXPECT_TRUE(IsOpen("/system"));
  EXPECT_EQ(settings_.Keys().size(), 3u);
}

TEST_F(PermissionImplTest, ChangesAndKeepsADynamicRule) {
  {
    const auto target = NewTarget();
    EXPECT_EQ(target->setAccessRule("/jpeg*", "true"), 0);
    EXPECT_EQ(Get(*target, "/jpeg*"), "true");
    EXPECT_TRUE(IsOpen("/jpeg/1"));
    EXPECT_FALSE(IsOpen("/rtsp/1"));
    EXPECT_EQ(settings_.GetString("rule.jpeg"), "true");
    EXPECT_EQ(target->setAccessRule("/ws/*", "@operators"), 0);
    EXPECT_EQ(target->setAccessRule("/rtsp/*", "false"), 0);
  }
  settings_.Reopen();
  const auto target = NewTarget();
  EXPECT_EQ(Get(*target, "/jpeg*"), "true");
  EXPECT_EQ(Get(*target, "/ws/*"), "@operators");
  EXPECT_EQ(Get(*target, "/rtsp/*"), "false");
}

TEST_F(PermissionImplTest, KeepsAnyTextAsItIs) {
  const auto target = NewTarget();
  for (const char* text : {"{88049574}", "@nobody", "True", " ", "\xff\xfe\n"}) {
    EXPECT_EQ(target->setAccessRule("/jpeg*", text), 0);
    EXPECT_EQ(Get(*target, "/jpeg*"), text);
    EXPECT_EQ(settings_.GetString("rule.jpeg"), text);
    EXPECT_FALSE(IsOpen("/jpeg")) << text;
  }
}

TEST_F(PermissionImplTest, TakesAnEmptyRuleForNoOneUntilTheNextStart) {
  {
    const auto target = NewTarget();
    EXPECT_EQ(target->setAccessRule("/jpeg*", ""), 0);
    EXPECT_EQ(Get(*target, "/jpeg*"), "");
    EXPECT_EQ(settings_.GetString("rule.jpeg"), "");
    const model::User admin("admin", "", tevra::interfaces::ISecurityProvider::kAdministrators, {});
    EXPECT_FALSE(rules_.HasAccess("/jpeg", &admin));
  }
  const auto target = NewTarget();
  EXPECT_EQ(Get(*target, "/jpeg*"), PermissionImpl::kReadMediaAccess);
}

TEST_F(PermissionImplTest, RefusesNullTextsAndUnknownPaths) {
  const auto target = NewTarget();
  EXPECT_EQ(Get(*target, nullptr), std::nullopt);
  EXPECT_EQ(Get(*target, "/unknown"), std::nullopt);
  EXPECT_EQ(Get(*target, "/onvif"), std::nullopt) << "implied, not set";
  EXPECT_EQ(Get(*target, ""), std::nullopt);
  EXPECT_EQ(target->setAccessRule(nullptr, "true"), 1);
  EXPECT_EQ(target->setAccessRule("/jpeg*", nullptr), 1);
  EXPECT_EQ(target->setAccessRule(nullptr, nullptr), 1);
  EXPECT_EQ(target->setAccessRule("/unknown", "true"), 1);
  EXPECT_EQ(Get(*target, "/jpeg*"), PermissionImpl::kReadMediaAccess);
}

TEST_F(PermissionImplTest, KeepsAChangeableStaticRuleUnderItsOwnPath) {
  const auto target = NewTarget();
  PermissionImplPeer::MakeChangeable(*target, "/system");
  EXPECT_EQ(target->setAccessRule("/system", "@admins"), 0);
  EXPECT_EQ(Get(*target, "/system"), "@admins");
  EXPECT_EQ(settings_.GetString("/system"), "@admins");
  EXPECT_FALSE(IsOpen("/system"));
  EXPECT_FALSE(IsOpen("/onvif")) << "the other static rules are still there";
  EXPECT_FALSE(IsOpen("/jpeg")) << "and so are the dynamic ones";
}

TEST_F(PermissionImplTest, RefusesAChangeablePathWithoutARule) {
  const auto target = NewTarget();
  PermissionImplPeer::MakeChangeable(*target, "/new");
  EXPECT_EQ(target->setAccessRule("/new", "false"), 1);
  EXPECT_TRUE(IsOpen("/new"));
}

TEST_F(PermissionImplTest, NamesItsSettingsAnewAtEveryStart) {
  PermissionImplPeer::SettingNames() = {{"/jpeg*", "elsewhere"}};
  const auto target = NewTarget();
  EXPECT_THAT(PermissionImplPeer::SettingNames(),
              testing::ElementsAre(testing::Pair("/jpeg*", "rule.jpeg"),
                                   testing::Pair("/rtsp/*", "rule.rtsp"),
                                   testing::Pair("/ws/*", "rule.web_socket")));
  EXPECT_FALSE(settings_.Exists("elsewhere"));
}

TEST_F(PermissionImplTest, HasNoSettingForOtherPaths) {
  const auto target = NewTarget();
  EXPECT_EQ(PermissionImplPeer::ReadRuleSetting(*target, "/system"), "{null}");
}

TEST_F(PermissionImplTest, PutsARuleInForceThatCannotBeKept) {
  const auto target = NewTarget();
  krand_core_settings_fail_after(1);
  EXPECT_EQ(target->setAccessRule("/jpeg*", "true"), 0);
  EXPECT_TRUE(IsOpen("/jpeg"));
  EXPECT_THAT(log_.TextsOf("VIGILA_KRAND", support::CapturingLog::Level::kError),
              testing::ElementsAre("could not write setting rule.jpeg (KRAND_CORE_IO_ERROR)"));
  krand_core_settings_fail_after(-1);
  EXPECT_EQ(settings_.GetString("rule.jpeg"), PermissionImpl::kReadMediaAccess);
}

TEST_F(PermissionImplTest, StartsWithTheDefaultsWhicheverCannotBeWritten) {
  const char* const kSettings[] = {"rule.jpeg", "rule.rtsp", "rule.web_socket"};
  for (int nth = 1; nth <= 3; ++nth) {
    for (const char* setting : kSettings) settings_.Delete(setting);
    krand_core_settings_fail_after(2 * nth - 1);  // each has a commit of its own
    const auto target = NewTarget();
    for (const char* path : {"/jpeg*", "/rtsp/*", "/ws/*"}) {
      EXPECT_EQ(Get(*target, path), PermissionImpl::kReadMediaAccess);
    }
    EXPECT_FALSE(IsOpen("/jpeg"));
    const std::string failed = kSettings[nth - 1];
    EXPECT_FALSE(settings_.Exists(failed));
    EXPECT_TRUE(log_.Contains("could not write setting " + failed + " (KRAND_CORE_IO_ERROR)"));
  }
}

TEST_F(PermissionImplTest, DoesNotStartOverASettingThatCannotBeRead) {
  settings_.PutJson("rule.rtsp", "{}");
  try {
    NewTarget();
    FAIL() << "took a value of another type for a rule";
  } catch (const tevra::osa::Exception& refusal) {
    EXPECT_STREQ(refusal.what(), "could not read setting rule.rtsp (KRAND_CORE_WRONG_TYPE)");
  }
  EXPECT_TRUE(log_.Contains("could not read setting rule.rtsp (KRAND_CORE_WRONG_TYPE)"));
  EXPECT_EQ(settings_.GetJson("rule.rtsp"), "{}") << "the value is left for somebody to look at";
}

TEST_F(PermissionImplTest, DoesNotStartOverABrokenStore) {
  settings_.PutString("rule.jpeg", "true");
  settings_.BreakOpenStore();
  EXPECT_THROW(NewTarget(), tevra::osa::Exception);
}

TEST(PermissionConstants, AreTheVocabularyOfTheDevice) {
  EXPECT_EQ(PermissionImpl::kReadSystemAccess, "{252ebb4c-d6cf-4f3d-892d-1b0d2431cb7a}");
  EXPECT_EQ(PermissionImpl::kReadSensitiveAccess, "{86343993-7e7e-4bbf-8f00-cf64e98d7aeb}");
  EXPECT_EQ(PermissionImpl::kReadSecretAccess, "{e1f9915b-7818-4bf0-b1e4-0514a9d05231}");
  EXPECT_EQ(PermissionImpl::kWriteAccess, "{5bff6465-ec25-4242-aebc-b089f32a0b90}");
  EXPECT_EQ(PermissionImpl::kWriteUnrecoverableAccess, "{cf4f528d-3e7d-4c9d-b721-e8fc326cd661}");
  EXPECT_EQ(PermissionImpl::kActuateAccess, "{42c59193-e2f4-4ca2-904c-11063eab5d3b}");
  EXPECT_EQ(PermissionImpl::kWriteSecretAccess, "{41414810-1b86-4b6a-a9cb-610264082e2e}");
  EXPECT_EQ(PermissionImpl::kReadAdminOnlyAccess, "{1ac07d72-3478-4824-b848-b3d1e653bebe}");
}

}  // namespace
}  // namespace vigila::server
