#include "vigila/model/expression.h"

#include <gtest/gtest.h>

#include <type_traits>

#include "tevra/osa/exception.h"
#include "vigila/model/user.h"

namespace vigila::model {
namespace {

constexpr char kUuid[] = "{252ebb4c-d6cf-4f3d-892d-1b0d2431cb7a}";

_uuid_t Scan(const char* text) {
  _uuid_t uuid = {};
  EXPECT_EQ(0, uuid_scan(text, &uuid));
  return uuid;
}

User Member(uint32_t group) {
  return User("alice", "", static_cast<ISecurityProvider::Group>(group), {});
}

bool Admits(const char* name, uint32_t group) {
  const User user = Member(group);
  return Expression::GroupName(name).Evaluate(&user);
}

TEST(Expression, GrantsAPermissionToThoseWhoHoldIt) {
  const User holder("alice", "", ISecurityProvider::kViewers, {Scan(kUuid)});
  const User other("bob", "", ISecurityProvider::kAdministrators, {_uuid_t{}});
  const Expression expression = Expression::Permission(Scan(kUuid));
  EXPECT_TRUE(expression.Evaluate(&holder));
  EXPECT_FALSE(expression.Evaluate(&other));
}

TEST(Expression, GrantsAPermissionToTheAnonymousAccountThatHoldsIt) {
  const User nobody("nobody", "", ISecurityProvider::kNobody, {Scan(kUuid)});
  EXPECT_TRUE(Expression::Permission(Scan(kUuid)).Evaluate(&nobody));
}

TEST(Expression, AnswersAConstantForAnybody) {
  const User user = Member(16);
  EXPECT_TRUE(Expression::Constant(true).Evaluate(&user));
  EXPECT_FALSE(Expression::Constant(false).Evaluate(&user));
}

TEST(Expression, AnswersAConstantWithoutAUser) {
  EXPECT_TRUE(Expression::Constant(true).Evaluate(nullptr));
  EXPECT_FALSE(Expression::Constant(false).Evaluate(nullptr));
}

TEST(Expression, RefusesEverythingElseWithoutAUser) {
  EXPECT_FALSE(Expression::Permission(Scan(kUuid)).Evaluate(nullptr));
  EXPECT_FALSE(Expression::Permission(_uuid_t{}).Evaluate(nullptr));
  EXPECT_FALSE(Expression::GroupName("viewers").Evaluate(nullptr));
  EXPECT_FALSE(Expression::GroupName("").Evaluate(nullptr));
}

TEST(Expression, AdmitsAGroupAndEveryStrongerOne) {
  struct {
    const char* name;
    uint32_t mask;
  } const groups[] = {{"admins", 1}, {"managers", 3}, {"operators", 7}, {"viewers", 15}};
  for (const auto& group : groups) {
    for (const uint32_t member : {1u, 2u, 4u, 8u}) {
      EXPECT_EQ((group.mask & member) != 0, Admits(group.name, member))
          << group.name << " " << member;
    }
  }
}

TEST(Expression, AdmitsTheAnonymousGroupNowhere) {
  for (const char* name : {"admins", "managers", "operators", "viewers"}) {
    EXPECT_FALSE(Admits(name, 16)) << name;
    EXPECT_FALSE(Admits(name, 0)) << name;
    EXPECT_FALSE(Admits(name, 0x40000000)) << name;
  }
}

TEST(Expression, KnowsFourGroupNamesInOneSpelling) {
  for (const char* name : {"", "Admins", "admin", "nobody", "viewers ", "@viewers"}) {
    EXPECT_FALSE(Admits(name, 1)) << name;
    EXPECT_FALSE(Admits(name, 0xffffffff)) << name;
  }
}

TEST(Expression, ThrowsForAnUnknownValueTypeEvenWithoutAUser) {
  const User user = Member(1);
  for (const int32_t value_type : {3, -1, 0x7fffffff}) {
    const Expression expression = Expression::OfValueType(value_type);
    for (const User* who : {&user, static_cast<const User*>(nullptr)}) {
      try {
        expression.Evaluate(who);
        FAIL() << value_type;
      } catch (const tevra::osa::Exception& error) {
        EXPECT_EQ("unknown value type = " + std::to_string(value_type), error.what());
      }
    }
  }
}

TEST(Expression, CopiesItsKindAndOperands) {
  const Expression permission(Expression::Permission(Scan(kUuid)));
  const Expression copy(permission);
  EXPECT_EQ(0, copy.GetValueType());
  EXPECT_EQ(Scan(kUuid), copy.Uuid());
  EXPECT_EQ("", copy.GetGroupName());
  EXPECT_FALSE(copy.GetConstant());

  const Expression constant_source = Expression::Constant(true);
  const Expression constant(constant_source);
  EXPECT_EQ(1, constant.GetValueType());
  EXPECT_TRUE(constant.GetConstant());
  EXPECT_EQ(_uuid_t{}, constant.Uuid());

  const Expression group_source = Expression::GroupName("managers");
  const Expression group(group_source);
  EXPECT_EQ(2, group.GetValueType());
  EXPECT_EQ("managers", group.GetGroupName());
}

TEST(Expression, IsDeletedThroughItsBase) {
  EXPECT_TRUE(std::has_virtual_destructor_v<Expression>);
}

}  // namespace
}  // namespace vigila::model
