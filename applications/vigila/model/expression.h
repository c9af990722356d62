#ifndef VIGILA_MODEL_EXPRESSION_H_
#define VIGILA_MODEL_EXPRESSION_H_

#include <cstdint>
#include <string>

#include "utilc/uuid.h"

namespace vigila::model {

class User;

// One operand of an access rule, judged against a user. Immutable apart from assignment; any thread
// may evaluate.
class Expression {
 public:
  enum ValueType : int32_t { kPermission = 0, kConstant = 1, kGroupName = 2 };

  // Granted to users whose permission set holds `uuid`.
  static Expression Permission(const _uuid_t& uuid);
  // The same answer for everyone, for no user too.
  static Expression Constant(bool value);
  // Granted to the group and every stronger one; a name that is no group is granted to no one.
  static Expression GroupName(const std::string& name);
  // An operand with a type of the caller's; one that is no ValueType cannot be evaluated.
  static Expression OfValueType(int32_t value_type);

  Expression(const Expression& other) = default;
  Expression& operator=(const Expression& other) = default;
  virtual ~Expression();

  // `user` may be null. Throws tevra::osa::Exception for an unknown value type.
  virtual bool Evaluate(const User* user) const;

  int32_t GetValueType() const { return value_type_; }
  const _uuid_t& Uuid() const { return uuid_; }
  const std::string& GetGroupName() const { return group_name_; }
  bool GetConstant() const { return constant_; }

 private:
  explicit Expression(int32_t value_type) : value_type_(value_type) {}

  int32_t value_type_;
  _uuid_t uuid_ = {};
  std::string group_name_;
  bool constant_ = false;
};

}  // namespace vigila::model

#endif  // VIGILA_MODEL_EXPRESSION_H_
