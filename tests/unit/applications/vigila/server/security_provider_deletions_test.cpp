// The deletion of accounts.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "security_provider_fixture.h"

namespace vigila::server {
namespace {

using support::ChangeRecorder;

TEST_F(SecurityProviderTest, DeletingEndsAccountAndSessionsAndIsAnnounced) {
  AddAdministrator();
  Add("viewer", "pass", 8);
  const std::string token = Logon("viewer", "pass");
  ChangeRecorder recorder;
  recorder.Attach(Provider());
  EXPECT_EQ(0, Provider().DeleteUsers({"viewer"}));
  EXPECT_EQ(std::vector<bool>{true}, recorder.Values());
  EXPECT_FALSE(Lives(token));
  EXPECT_EQ("NO_TOKEN", Logon("viewer", "pass"));
  EXPECT_EQ(0, krand_core_settings_does_key_exist("user.viewer"));
  EXPECT_EQ(10, Provider().DeleteUsers({"viewer"}));
}

TEST_F(SecurityProviderTest, DeletingNobodyDeletesNoneOfTheOthers) {
  AddAdministrator();
  Add("alice", "secret", 8);
  ChangeRecorder recorder;
  recorder.Attach(Provider());
  EXPECT_EQ(11, Provider().DeleteUsers({"alice", "nobody"}));
  EXPECT_TRUE(IsToken(Logon("alice", "secret")));
  EXPECT_EQ(std::vector<bool>(), recorder.Values());
}

TEST_F(SecurityProviderTest, FirstNameThatCannotBeDeletedDecides) {
  AddAdministrator();
  Add("alice", "secret", 8);
  EXPECT_EQ(10, Provider().DeleteUsers({"alice", "ghost", "nobody"}));
  EXPECT_EQ(11, Provider().DeleteUsers({"alice", "nobody", "ghost"}));
  EXPECT_EQ(10, Provider().DeleteUsers({""}));
  EXPECT_EQ(10, Provider().DeleteUsers({std::string("alice\0", 6)}));
  EXPECT_TRUE(IsToken(Logon("alice", "secret")));
}

TEST_F(SecurityProviderTest, DeletingNothingSucceedsAndIsAnnounced) {
  AddAdministrator();
  ChangeRecorder recorder;
  recorder.Attach(Provider());
  EXPECT_EQ(0, Provider().DeleteUsers({}));
  EXPECT_EQ(std::vector<bool>{true}, recorder.Values());
}

TEST_F(SecurityProviderTest, LastAdministratorIsNotDeletedAndNothingIsAnnounced) {
  AddAdministrator();
  Add("viewer", "pass", 8);
  ChangeRecorder recorder;
  recorder.Attach(Provider());
  EXPECT_EQ(11, Provider().DeleteUsers({"viewer", "admin"}));
  EXPECT_EQ(std::vector<bool>(), recorder.Values());
  EXPECT_TRUE(IsToken(Logon("viewer", "pass")));
  Add("second", "adminpass", 1);
  EXPECT_EQ(0, Provider().DeleteUsers({"admin"}));
}

TEST_F(SecurityProviderTest, OneNameTwiceIsDeletedOnce) {
  AddAdministrator();
  Add("viewer", "pass", 8);
  EXPECT_EQ(0, Provider().DeleteUsers({"viewer", "viewer"}));
  EXPECT_EQ(10, Provider().DeleteUsers({"viewer"}));
}

}  // namespace
}  // namespace vigila::server
