#include "vigila/server/rule_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/capturing_log.h"
#include "support/memory/memory_shortage.h"
#include "vigila/model/user.h"
#include "vigila/server/permission_impl.h"

namespace vigila::server {
namespace {

using model::User;
using testing::ElementsAre;
using testing::IsEmpty;
using tevra::interfaces::ISecurityProvider;
using Texts = std::map<std::string, std::string>;

std::set<_uuid_t> Permissions(const std::vector<std::string>& texts) {
  std::set<_uuid_t> permissions;
  for (const std::string& text : texts) {
    _uuid_t uuid;
    EXPECT_EQ(uuid_scan(text.c_str(), &uuid), 0);
    permissions.insert(uuid);
  }
  return permissions;
}

Texts DefaultStaticRules() {
  return {{"/inject.cgi", "@admins"},
          {"/system", "true"},
          {"/control/*", PermissionImpl::kBraxenAccess},
          {"/onvif/*", PermissionImpl::kPermApiAccess},
          {"/halvard-instrument/cgi/*", PermissionImpl::kPermApiAccess}};
}

Texts DefaultDynamicRules() {
  return {{"/jpeg*", PermissionImpl::kReadMediaAccess},
          {"/rtsp/*", PermissionImpl::kReadMediaAccess},
          {"/ws/*", PermissionImpl::kReadMediaAccess}};
}

class RuleManagerTest : public testing::Test {
 protected:
  void SetDefaults() {
    rules_.SetRules(DefaultStaticRules(), false);
    rules_.SetRules(DefaultDynamicRules(), true);
  }
  bool Anonymous(const std::string& path) const { return rules_.HasAccess(path, nullptr); }

  support::CapturingLog log_;
  RuleManager rules_;
  const User admin_{"admin", "", ISecurityProvider::kAdministrators,
                    Permissions({PermissionImpl::kReadMediaAccess, PermissionImpl::kPermApiAccess,
                                 PermissionImpl::kBraxenAccess})};
  const User viewer_{"viewer", "", ISecurityProvider::kViewers,
                     Permissions({PermissionImpl::kReadMediaAccess})};
  const User nobody_{"nobody", "", ISecurityProvider::kNobody, {}};
};

TEST_F(RuleManagerTest, LeavesEveryPathOpenUntilRulesAreSet) {
  for (const char* path : {"/system", "/inject.cgi", "", "/"}) {
    EXPECT_FALSE(rules_.IsProtected(path));
    EXPECT_TRUE(Anonymous(path));
  }
  EXPECT_THAT(rules_.GetAllowedPaths(&admin_), IsEmpty());
}

TEST_F(RuleManagerTest, OpensTheSystemPathToEverybody) {
  SetDefaults();
  EXPECT_FALSE(rules_.IsProtected("/system"));
  EXPECT_TRUE(Anonymous("/system"));
  EXPECT_TRUE(rules_.HasAccess("/system", &nobody_));
}

TEST_F(RuleManagerTest, KeepsInjectionForAdministrators) {
  SetDefaults();
  EXPECT_TRUE(rules_.IsProtected("/inject.cgi"));
  EXPECT_TRUE(rules_.HasAccess("/inject.cgi", &admin_));
  EXPECT_FALSE(rules_.HasAccess("/inject.cgi", &viewer_));
  EXPECT_FALSE(rules_.HasAccess("/inject.cgi", &nobody_));
  EXPECT_FALSE(Anonymous("/inject.cgi"));
}

TEST_F(RuleManagerTest, TakesAStarInAStaticPathLiterally) {
  SetDefaults();
  for (const char* path : {"/control", "/control/*", "/onvif", "/onvif/*", "/halvard-instrument",
                           "/halvard-instrument/cgi", "/halvard-instrument/cgi/*"}) {
    EXPECT_TRUE(rules_.IsProtected(path)) << path;
    EXPECT_TRUE(rules_.HasAccess(path, &admin_)) << path;
    EXPECT_FALSE(rules_.HasAccess(path, &viewer_)) << path;
  }
  for (const char* path : {"/control/ptz", "/control/", "/onvif/device", "/Control", "/system/"}) {
    EXPECT_FALSE(rules_.IsProtected(path)) << path;
    EXPECT_TRUE(Anonymous(path)) << path;
  }
}

TEST_F(RuleManagerTest, MatchesDynamicPathsByPattern) {
  SetDefaults();
  for (const char* path : {"/jpeg", "/jpeg/1", "/jpeg.cgi", "/jpeg*", "/rtsp/stream1", "/rtsp/",
                           "/rtsp/a/b", "/ws/x"}) {
    EXPECT_TRUE(rules_.IsProtected(path)) << path;
    EXPECT_FALSE(Anonymous(path)) << path;
    EXPECT_FALSE(rules_.HasAccess(path, &nobody_)) << path;
    EXPECT_TRUE(rules_.HasAccess(path, &viewer_)) << path;
  }
  for (const char* path : {"/jpe", "/JPEG", "/rtsp", "/ws", "x/jpeg", ""}) {
    EXPECT_FALSE(rules_.IsProtected(path)) << path;
    EXPECT_TRUE(Anonymous(path)) << path;
  }
}

TEST_F(RuleManagerTest, PrefersTheExactRule) {
  rules_.SetRules({{"/jpeg/1", "true"}}, false);
  rules_.SetRules({{"/jpeg*", "false"}}, true);
  EXPECT_TRUE(Anonymous("/jpeg/1"));
  EXPECT_FALSE(Anonymous("/jpeg/2"));
}

TEST_F(RuleManagerTest, PrefersTheFirstPatternInByteOrder) {
  rules_.SetRules({{"/a*", "true"}, {"/a/b*", "false"}, {"/*", "false"}}, true);
  EXPECT_FALSE(Anonymous("/a/b")) << "\"/*\" comes before both";
  rules_.SetRules({{"/b*", "true"}, {"/b/c*", "false"}}, true);
  EXPECT_TRUE(Anonymous("/b/c")) << "\"/b*\" comes first though it is less specific";
}

TEST_F(RuleManagerTest, ImpliesARuleForEveryParentDirectory) {
  rules_.SetRules({{"/a/b/c/*", "true"}}, false);
  EXPECT_THAT(rules_.GetAllowedPaths(nullptr), ElementsAre("/a", "/a/b", "/a/b/c", "/a/b/c/*"));
  EXPECT_THAT(log_.TextsOf("RuleManager", support::CapturingLog::Level::kDebug),
              ElementsAre("adding rule for /a/b/c (implied from /a/b/c/*)",
                          "adding rule for /a/b (implied from /a/b/c/*)",
                          "adding rule for /a (implied from /a/b/c/*)"));
}

TEST_F(RuleManagerTest, ImpliesNothingFromAShortPath) {
  rules_.SetRules({{"/system", "true"},
                   {"plain", "true"},
                   {"", "true"},
                   {"/", "true"},
                   {"a/", "true"},
                   {"a/b", "true"}},
                  false);
  EXPECT_EQ(rules_.GetAllowedPaths(nullptr).size(), 6u);
  EXPECT_THAT(log_.TextsOf("RuleManager"), IsEmpty());
}

TEST_F(RuleManagerTest, ImpliesFromPathsWithoutALeadingSlashAndWithEmptyFields) {
  rules_.SetRules({{"a/b/c", "true"}}, false);
  EXPECT_THAT(rules_.GetAllowedPaths(nullptr), ElementsAre("a/b", "a/b/c"));
  rules_.SetRules({{"//", "true"}}, false);
  EXPECT_THAT(rules_.GetAllowedPaths(nullptr), ElementsAre("/", "//"));
  rules_.SetRules({{"/x/", "true"}}, false);
  EXPECT_THAT(rules_.GetAllowedPaths(nullptr), ElementsAre("/x", "/x/"));
  rules_.SetRules({{"a//b", "true"}}, false);
  EXPECT_THAT(rules_.GetAllowedPaths(nullptr), ElementsAre("a/", "a//b"));
}

TEST_F(RuleManagerTest, ImpliesNothingFromDynamicRules) {
  rules_.SetRules({{"/a/b/*", "false"}}, true);
  EXPECT_FALSE(Anonymous("/a/b/c"));
  EXPECT_TRUE(Anonymous("/a/b"));
  EXPECT_TRUE(Anonymous("/a"));
}

TEST_F(RuleManagerTest, ReplacesAnExplicitRuleByAnImpliedOne) {
  rules_.SetRules({{"/onvif", "true"}, {"/onvif/*", "false"}}, false);
  EXPECT_FALSE(Anonymous("/onvif"));
}

TEST_F(RuleManagerTest, LetsTheLastOfTwoImplyingRulesWin) {
  rules_.SetRules({{"/a/b", "true"}, {"/a/c", "false"}}, false);
  EXPECT_FALSE(Anonymous("/a"));
  rules_.SetRules({{"/a/b", "false"}, {"/a/c", "true"}}, false);
  EXPECT_TRUE(Anonymous("/a"));
}

TEST_F(RuleManagerTest, ListsNineStaticPathsAndNoPatternToAnAdministrator) {
  SetDefaults();
  EXPECT_THAT(
      rules_.GetAllowedPaths(&admin_),
      ElementsAre("/control", "/control/*", "/halvard-instrument", "/halvard-instrument/cgi",
                  "/halvard-instrument/cgi/*", "/inject.cgi", "/onvif", "/onvif/*", "/system"));
  EXPECT_THAT(rules_.GetAllowedPaths(&viewer_), ElementsAre("/system"));
  EXPECT_THAT(rules_.GetAllowedPaths(nullptr), ElementsAre("/system"));
}

TEST_F(RuleManagerTest, TakesOnlyTrueForTheConstantTrue) {
  for (const char* value :
       {"True", "1", "", "TRUE", "true ", " true", "truetrue", "false", "yes"}) {
    rules_.SetRules({{"/x", value}}, false);
    EXPECT_TRUE(rules_.IsProtected("/x")) << value;
    EXPECT_FALSE(rules_.HasAccess("/x", &admin_)) << value;
  }
  rules_.SetRules({{"/x", std::string("true\0", 5)}}, false);
  EXPECT_TRUE(rules_.IsProtected("/x"));
}

TEST_F(RuleManagerTest, AdmitsAGroupAndEveryStrongerOne) {
  const auto admits = [this](const char* value, ISecurityProvider::Group group) {
    rules_.SetRules({{"/x", value}}, false);
    const User user("user", "", group, {});
    return rules_.HasAccess("/x", &user);
  };
  EXPECT_TRUE(admits("@operators", ISecurityProvider::kManagers));
  EXPECT_TRUE(admits("@operators", ISecurityProvider::kOperators));
  EXPECT_FALSE(admits("@operators", ISecurityProvider::kViewers));
  EXPECT_FALSE(admits("@viewers", ISecurityProvider::kNobody));
  EXPECT_FALSE(admits("@", ISecurityProvider::kAdministrators));
  EXPECT_FALSE(admits("@Admins", ISecurityProvider::kAdministrators));
  EXPECT_FALSE(admits("@admins ", ISecurityProvider::kAdministrators));
}

TEST_F(RuleManagerTest, AdmitsNoOneByAnIdentifierThatCannotBeRead) {
  const User zero("zero", "", ISecurityProvider::kViewers, {_uuid_t{}});
  for (const char* value : {"{", "{}", "{not-a-guid}", "{88049574-465a-4f41-89d4-d6d517e8c21}",
                            "{88049574-465a-4f41-89d4-d6d517e8c218} "}) {
    rules_.SetRules({{"/x", value}}, false);
    EXPECT_TRUE(rules_.IsProtected("/x")) << value;
    EXPECT_FALSE(rules_.HasAccess("/x", &viewer_)) << value;
    EXPECT_TRUE(rules_.HasAccess("/x", &zero)) << value;
  }
  EXPECT_THAT(log_.Lines(), IsEmpty()) << "not reported";
}

TEST_F(RuleManagerTest, JudgesProtectionWithoutAnyAccount) {
  const User nobody("nobody", "", ISecurityProvider::kNobody,
                    Permissions({PermissionImpl::kReadMediaAccess}));
  SetDefaults();
  EXPECT_TRUE(rules_.IsProtected("/jpeg"));
  EXPECT_TRUE(rules_.HasAccess("/jpeg", &nobody));
}

TEST_F(RuleManagerTest, ReplacesOneTableAndLeavesTheOther) {
  SetDefaults();
  rules_.SetRules({}, false);
  EXPECT_TRUE(Anonymous("/inject.cgi"));
  EXPECT_FALSE(Anonymous("/jpeg"));
  rules_.SetRules({{"/a", "false"}}, false);
  rules_.SetRules({}, true);
  EXPECT_FALSE(Anonymous("/a"));
  EXPECT_TRUE(Anonymous("/jpeg"));
}

TEST_F(RuleManagerTest, GivesTheSameAnswerForAnyBytes) {
  rules_.SetRules({{std::string("/a\0b", 4), "false"}, {"/\xff\xfe", "false"}}, false);
  EXPECT_FALSE(Anonymous(std::string("/a\0b", 4)));
  EXPECT_TRUE(Anonymous("/a"));
  EXPECT_FALSE(Anonymous("/\xff\xfe"));
  EXPECT_TRUE(Anonymous(std::string(1 << 20, '/')));
}

TEST(RuleManagerMemory, LeavesTheRulesAloneWhereverItRunsOut) {
  if (!support::MemoryShortage::kWorks) GTEST_SKIP() << "memory does not run out in this build";
  RuleManager rules;
  const Texts shut = {{"/a/b/*", "false"}, {"/x*", "@admins"}};
  const Texts open = {{"/a/b/*", "true"}, {"/x*", "true"}};
  for (const bool dynamic : {false, true}) {
    rules.SetRules(shut, dynamic);
    bool met = true;
    int nth = 0;
    while (met) {
      bool thrown = false;
      {
        const support::MemoryShortage shortage(++nth);
        try {
          rules.SetRules(open, dynamic);
        } catch (const std::bad_alloc&) {
          thrown = true;
        }
        met = shortage.WasMet();
      }
      ASSERT_EQ(thrown, met) << nth;
      for (const char* path : {"/a/b/*", "/x*"}) ASSERT_EQ(rules.IsProtected(path), met) << nth;
    }
    EXPECT_GE(nth, 5);
    rules.SetRules({}, dynamic);
  }
}

TEST_F(RuleManagerTest, ShowsReadersOneTableOrTheOtherWhileRulesChange) {
  const Texts open = {{"/a/b", "true"}, {"/a", "true"}};
  const Texts shut = {{"/a/b", "false"}, {"/a", "false"}};
  rules_.SetRules(open, false);
  rules_.SetRules({{"/jpeg*", "false"}}, true);
  std::atomic<int> rounds{0};
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int i = 0; i < 500 || rounds < 500; ++i) {
      rules_.SetRules(i % 2 == 0 ? shut : open, false);
      rules_.SetRules({{"/jpeg*", "false"}}, true);
    }
    done = true;
  });
  const auto read = [&] {
    while (!done) {
      const std::size_t allowed = rules_.GetAllowedPaths(&admin_).size();
      EXPECT_TRUE(allowed == 0 || allowed == 2) << allowed;
      EXPECT_TRUE(rules_.IsProtected("/jpeg/1"));
      EXPECT_FALSE(rules_.HasAccess("/jpeg/1", &admin_));
      EXPECT_TRUE(rules_.HasAccess("/other", nullptr));
      ++rounds;
    }
  };
  std::thread first(read);
  std::thread second(read);
  writer.join();
  first.join();
  second.join();
}

}  // namespace
}  // namespace vigila::server
