#include "vigila/model/user.h"

#include <gtest/gtest.h>

#include <type_traits>
#include <utility>

namespace vigila::model {
namespace {

using Group = ISecurityProvider::Group;

_uuid_t Uuid(unsigned char last) {
  _uuid_t uuid = {};
  uuid.bytes[15] = last;
  return uuid;
}

User SharedSession() {
  User user("alice", "0123abcd", ISecurityProvider::kOperators, {Uuid(1), Uuid(2)});
  user.SetLastAccess(tevra::osa::TimeStruct(5, 6));
  user.SetReusable(true);
  return user;
}

TEST(User, KeepsWhatItWasBuiltWithAndNoSessionState) {
  const User user("alice", "0123abcd", ISecurityProvider::kOperators, {Uuid(2), Uuid(1)});
  EXPECT_EQ("alice", user.Name());
  EXPECT_EQ("0123abcd", user.Digest());
  EXPECT_EQ(ISecurityProvider::kOperators, user.GetGroup());
  EXPECT_EQ((std::set<_uuid_t>{Uuid(1), Uuid(2)}), user.Permissions());
  EXPECT_EQ(tevra::osa::TimeStruct(), user.LastAccess());
  EXPECT_FALSE(user.IsReusable());
}

TEST(User, SharesThePermissionsOfItsRights) {
  const User::Rights rights{
      ISecurityProvider::kOperators,
      std::make_shared<const std::set<_uuid_t>>(std::set<_uuid_t>{Uuid(1), Uuid(2)})};
  const User user("alice", "0123abcd", rights);
  const User copy(user);
  EXPECT_EQ("alice", user.Name());
  EXPECT_EQ("0123abcd", user.Digest());
  EXPECT_EQ(ISecurityProvider::kOperators, user.GetGroup());
  EXPECT_EQ(rights.permissions.get(), &user.Permissions());
  EXPECT_EQ(rights.permissions.get(), &copy.Permissions());
  EXPECT_EQ(tevra::osa::TimeStruct(), user.LastAccess());
  EXPECT_FALSE(user.IsReusable());
}

TEST(User, HasTheFixedTexts) {
  EXPECT_STREQ("nobody", User::kAnonymousUsername);
  EXPECT_STREQ("%%NEWLINECHAR%%", User::kNewLineChar);
}

TEST(User, HasTheFixedGroupValues) {
  EXPECT_EQ(1u, ISecurityProvider::kAdministrators);
  EXPECT_EQ(2u, ISecurityProvider::kManagers);
  EXPECT_EQ(4u, ISecurityProvider::kOperators);
  EXPECT_EQ(8u, ISecurityProvider::kViewers);
  EXPECT_EQ(16u, ISecurityProvider::kNobody);
  EXPECT_EQ(1073741824u, ISecurityProvider::kNoSuchUser);
}

TEST(User, SortsPermissionsByTheirBytes) {
  _uuid_t high = {};
  high.bytes[0] = 0xff;
  const User user("alice", "", ISecurityProvider::kViewers, {high, Uuid(1)});
  EXPECT_EQ(Uuid(1), *user.Permissions().begin());
  EXPECT_EQ(high, *user.Permissions().rbegin());
}

TEST(User, LeavesSessionStateBehindWhenCopied) {
  const User original = SharedSession();
  const User copy(original);
  EXPECT_EQ("alice", copy.Name());
  EXPECT_EQ("0123abcd", copy.Digest());
  EXPECT_EQ(ISecurityProvider::kOperators, copy.GetGroup());
  EXPECT_EQ(original.Permissions(), copy.Permissions());
  EXPECT_EQ(tevra::osa::TimeStruct(), copy.LastAccess());
  EXPECT_FALSE(copy.IsReusable());
}

TEST(User, LeavesTheSourceOfACopyInItsSession) {
  const User original = SharedSession();
  const User copy(original);
  EXPECT_TRUE(original.IsReusable());
  EXPECT_EQ(tevra::osa::TimeStruct(5, 6), original.LastAccess());
}

TEST(User, ClearsTheTargetsSessionStateWhenAssigned) {
  User target("bob", "ff", ISecurityProvider::kViewers, {});
  target.SetReusable(true);
  target.SetLastAccess(tevra::osa::TimeStruct(9, 9));
  target = SharedSession();
  EXPECT_EQ("alice", target.Name());
  EXPECT_EQ("0123abcd", target.Digest());
  EXPECT_EQ(ISecurityProvider::kOperators, target.GetGroup());
  EXPECT_EQ(2u, target.Permissions().size());
  EXPECT_FALSE(target.IsReusable());
  EXPECT_EQ(tevra::osa::TimeStruct(), target.LastAccess());
}

TEST(User, KeepsEverythingWhenAssignedToItself) {
  User user = SharedSession();
  user.SetReusable(true);
  user.SetLastAccess(tevra::osa::TimeStruct(5, 6));
  const User& itself = user;
  user = itself;
  EXPECT_EQ("alice", user.Name());
  EXPECT_TRUE(user.IsReusable());
  EXPECT_EQ(tevra::osa::TimeStruct(5, 6), user.LastAccess());
}

TEST(User, IsDeletedThroughItsBaseAndNeverThrowsWhenBuilt) {
  EXPECT_TRUE(std::has_virtual_destructor_v<User>);
  EXPECT_TRUE(std::is_nothrow_copy_constructible_v<User>);
  EXPECT_TRUE((std::is_nothrow_constructible_v<User, const std::string&, const std::string&,
                                               const Group&, const std::set<_uuid_t>&>));
}

TEST(User, TakesAnyDigestForTheAnonymousAccount) {
  const User nobody("nobody", "abc", ISecurityProvider::kNobody, {});
  EXPECT_TRUE(nobody.CompareHA1(""));
  EXPECT_TRUE(nobody.CompareHA1("abc"));
  EXPECT_TRUE(nobody.CompareHA1("something else"));
}

TEST(User, TakesOnlyTheSameNameForTheAnonymousAccount) {
  const User almost("Nobody", "abc", ISecurityProvider::kNobody, {});
  EXPECT_FALSE(almost.CompareHA1(""));
  const User longer("nobody ", "abc", ISecurityProvider::kNobody, {});
  EXPECT_FALSE(longer.CompareHA1(""));
}

TEST(User, ComparesDigestsByteForByte) {
  const User user("alice", "0123abcd", ISecurityProvider::kViewers, {});
  EXPECT_TRUE(user.CompareHA1("0123abcd"));
  EXPECT_FALSE(user.CompareHA1("0123ABCD"));
  EXPECT_FALSE(user.CompareHA1("0123abc"));
  EXPECT_FALSE(user.CompareHA1("0123abcde"));
  EXPECT_FALSE(user.CompareHA1(""));
}

TEST(User, FindsTwoEmptyDigestsEqual) {
  const User user("alice", "", ISecurityProvider::kViewers, {});
  EXPECT_TRUE(user.CompareHA1(""));
  EXPECT_FALSE(user.CompareHA1("0"));
}

TEST(User, ComparesDigestsBeyondAZeroByte) {
  const User user("alice", std::string("a\0b", 3), ISecurityProvider::kViewers, {});
  EXPECT_TRUE(user.CompareHA1(std::string("a\0b", 3)));
  EXPECT_FALSE(user.CompareHA1(std::string("a\0c", 3)));
  EXPECT_FALSE(user.CompareHA1("a"));
}

TEST(User, HashesWithMd5) {
  EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", User::MD5sum(""));
  EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", User::MD5sum("abc"));
  // The user, realm and password of a published digest example.
  EXPECT_EQ("939e7578ed9e3c518a452acee763bce9",
            User::MD5sum("Mufasa:testrealm@host.com:Circle Of Life"));
}

TEST(User, HashesBytesBeyondAZeroByte) {
  EXPECT_NE(User::MD5sum("a"), User::MD5sum(std::string("a\0", 2)));
  EXPECT_EQ("93b885adfe0da089cdf634904fd59f71", User::MD5sum(std::string(1, '\0')));
}

TEST(User, WritesTwoLowerCaseDigitsForEachByte) {
  const unsigned char bytes[] = {0x00, 0xab, 0xff, 0x10};
  EXPECT_EQ("00ab", User::ToHex(bytes, 2));
  EXPECT_EQ("00abff10", User::ToHex(bytes, 4));
  EXPECT_EQ("", User::ToHex(bytes, 0));
}

}  // namespace
}  // namespace vigila::model
