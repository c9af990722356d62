#include "vigila-gateway/auth/group_names.h"

#include <gtest/gtest.h>

#include <string>

namespace vigila::gateway {
namespace {

constexpr const char* kReadAdministratorsData = "1ac07d72-3478-4824-b848-b3d1e653bebe";
constexpr const char* kWrite = "5bff6465-ec25-4242-aebc-b089f32a0b90";
constexpr const char* kReadSensitiveData = "86343993-7e7e-4bbf-8f00-cf64e98d7aeb";
constexpr const char* kReadSystem = "252ebb4c-d6cf-4f3d-892d-1b0d2431cb7a";
constexpr const char* kApiAccess = "00d8dc27-61d1-4b7d-85a8-519efb70d712";

TEST(GroupNames, CountAnAccountAsItsGroupAndAllBelow) {
  EXPECT_EQ(GroupNames({kReadSystem, kReadSensitiveData, kWrite, kReadAdministratorsData}),
            "admins,managers,operators,viewers");
  EXPECT_EQ(GroupNames({kReadSystem, kReadSensitiveData, kWrite}), "managers,operators,viewers");
  EXPECT_EQ(GroupNames({kReadSystem, kReadSensitiveData}), "operators,viewers");
  EXPECT_EQ(GroupNames({kApiAccess, kReadSystem}), "viewers");
}

TEST(GroupNames, AreNoneForNobody) {
  EXPECT_EQ(GroupNames({}), "");
  EXPECT_EQ(GroupNames({kApiAccess}), "");
}

TEST(GroupNames, TakeAnIdentifierInBracesAndInCapitals) {
  EXPECT_EQ(GroupNames({"{252EBB4C-D6CF-4F3D-892D-1B0D2431CB7A}"}), "viewers");
}

TEST(GroupNames, AreGivenForAWholeIdentifierOnly) {
  const std::string whole = kReadSystem;
  EXPECT_EQ(GroupNames({"", "{}", "{" + whole, whole + "}", whole.substr(1), whole + "a"}), "");
}

}  // namespace
}  // namespace vigila::gateway
