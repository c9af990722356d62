#include "vigila/model/expression.h"

#include "tevra/osa/exception.h"
#include "vigila/contract/groups.h"
#include "vigila/model/user.h"

namespace vigila::model {

namespace {

static_assert(contract::kAdministratorsBit == ISecurityProvider::kAdministrators &&
              contract::kManagersBit == ISecurityProvider::kManagers &&
              contract::kOperatorsBit == ISecurityProvider::kOperators &&
              contract::kViewersBit == ISecurityProvider::kViewers &&
              contract::kNobodyBit == ISecurityProvider::kNobody);

// Contract: the anonymous group is in no mask, so no group name, not even "viewers", ever admits
// it; anonymous callers reach a path through a permission only.
bool IsInGroup(const User& user, const std::string& name) {
  for (const contract::Group& group : contract::kRuleGroups) {
    if (name == group.name) return (user.GetGroup() & contract::AtLeast(group.bit)) != 0;
  }
  return false;
}

}  // namespace

Expression Expression::Permission(const _uuid_t& uuid) {
  Expression expression(kPermission);
  expression.uuid_ = uuid;
  return expression;
}

Expression Expression::Constant(bool value) {
  Expression expression(kConstant);
  expression.constant_ = value;
  return expression;
}

Expression Expression::GroupName(const std::string& name) {
  Expression expression(kGroupName);
  expression.group_name_ = name;
  return expression;
}

Expression Expression::OfValueType(int32_t value_type) {
  return Expression(value_type);
}

Expression::~Expression() = default;

bool Expression::Evaluate(const User* user) const {
  // Contract: a constant answers before the user is looked at, so "true" opens a path to callers
  // without any record, and an unknown type throws for them as well.
  switch (value_type_) {
    case kConstant:
      return constant_;
    case kPermission:
      return user != nullptr && user->Permissions().contains(uuid_);
    case kGroupName:
      return user != nullptr && IsInGroup(*user, group_name_);
    default:
      throw tevra::osa::Exception("unknown value type = %d", value_type_);
  }
}

}  // namespace vigila::model
