// What accounts and nobody may reach.
#include <gtest/gtest.h>

#include <string>

#include "security_provider_fixture.h"

namespace vigila::server {
namespace {

TEST_F(SecurityProviderTest, ProtectionDoesNotDependOnAccounts) {
  EXPECT_TRUE(Provider().IsProtected("/inject.cgi"));
  EXPECT_TRUE(Provider().IsProtected("/jpeg/1"));
  EXPECT_FALSE(Provider().IsProtected("/system"));
  EXPECT_FALSE(Provider().IsProtected("/control/ptz"));
}

TEST_F(SecurityProviderTest, AuthorizeFollowsTheRulesForEachAccount) {
  AddAdministrator();
  Add("viewer", "pass", 8);
  const std::string admin = Logon("admin", "adminpass");
  const std::string viewer = Logon("viewer", "pass");
  const struct {
    const char* path;
    bool admin, viewer, nobody;
  } rows[] = {{"/inject.cgi", true, false, false},  {"/jpeg/1", true, true, false},
              {"/rtsp/stream1", true, true, false}, {"/system", true, true, true},
              {"/onvif", true, true, true},         {"/no/rule", true, true, true}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.admin, Provider().Authorize(admin, row.path)) << row.path;
    EXPECT_EQ(row.viewer, Provider().Authorize(viewer, row.path)) << row.path;
    EXPECT_EQ(row.nobody, Provider().Authorize("NO_TOKEN", row.path)) << row.path;
    EXPECT_EQ(row.nobody, Provider().Authorize("12345678", row.path)) << row.path;
  }
}

TEST_F(SecurityProviderTest, GrantedAuthorizeRefreshesTheSessionAndSaysSo) {
  AddAdministrator();
  const std::string token = Logon("admin", "adminpass");
  server_.AdvanceSeconds(1800);
  log_.Clear();
  EXPECT_TRUE(Provider().Authorize(token, "/inject.cgi"));
  EXPECT_EQ(Strings({"refreshing token " + token + " via authorize",
                     "authorize " + token + " /inject.cgi -> true"}),
            Debugs());
  server_.AdvanceSeconds(1800);
  EXPECT_TRUE(Lives(token));
}

TEST_F(SecurityProviderTest, RefusedAuthorizeDoesNotRefreshTheSession) {
  AddAdministrator();
  Add("viewer", "pass", 8);
  const std::string token = Logon("viewer", "pass");
  server_.AdvanceSeconds(1800);
  log_.Clear();
  EXPECT_FALSE(Provider().Authorize(token, "/inject.cgi"));
  EXPECT_EQ(Strings({"authorize " + token + " /inject.cgi -> false"}), Debugs());
  server_.Advance(1);
  EXPECT_FALSE(Lives(token));
}

TEST_F(SecurityProviderTest, AuthorizeByNobodyNeverRefreshes) {
  AddAdministrator();
  log_.Clear();
  EXPECT_TRUE(Provider().Authorize("NO_TOKEN", "/system"));
  EXPECT_TRUE(Provider().Authorize("12345678", "/system"));
  EXPECT_EQ(Strings({"authorize NO_TOKEN /system -> true", "authorize 12345678 /system -> true"}),
            Debugs());
}

TEST_F(SecurityProviderTest, SessionThatExpiredIsAuthorizedAsNobody) {
  AddAdministrator();
  const std::string token = Logon("admin", "adminpass");
  server_.Advance(1800 * 1000000LL + 1);
  EXPECT_FALSE(Provider().Authorize(token, "/inject.cgi"));
  EXPECT_TRUE(Provider().Authorize(token, "/system"));
}

TEST_F(SecurityProviderTest, AllowedPathsAreThoseOfTheAccount) {
  AddAdministrator();
  EXPECT_EQ(Strings({"/control", "/control/*", "/halvard-instrument", "/halvard-instrument/cgi",
                     "/halvard-instrument/cgi/*", "/inject.cgi", "/onvif", "/onvif/*", "/system"}),
            Provider().GetAllowedPaths(Logon("admin", "adminpass")));
  // Everything but the administrators' path: the two permissions in use belong to everybody.
  EXPECT_EQ(Strings({"/control", "/control/*", "/halvard-instrument", "/halvard-instrument/cgi",
                     "/halvard-instrument/cgi/*", "/onvif", "/onvif/*", "/system"}),
            Provider().GetAllowedPaths("NO_TOKEN"));
}

}  // namespace
}  // namespace vigila::server
