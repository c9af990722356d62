#ifndef VIGILA_SERVER_RULE_MANAGER_H_
#define VIGILA_SERVER_RULE_MANAGER_H_

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tevra/core/logger.h"
#include "tevra/osa/mutex.h"

namespace vigila::model {
class Expression;
class User;
}  // namespace vigila::model

namespace vigila::server {

// Which path is protected, and who may reach it. Two tables of rules: static ones, found by the
// exact path, and dynamic ones, found by a pattern in which "*" stands for any run of bytes. A path
// that no rule governs is open to everybody.
//
// A rule's value is a permission identifier in braces, "@" and a group name, or a constant that is
// true only for "true".
//
// Any thread may call. A query sees the tables before or after a change, never between.
class RuleManager {
 public:
  RuleManager();
  virtual ~RuleManager();
  RuleManager(const RuleManager&) = delete;
  RuleManager& operator=(const RuleManager&) = delete;

  // Replaces one whole table, path to value: the dynamic one, or the static one, whose rules then
  // also hold for every parent directory of their paths.
  void SetRules(const std::map<std::string, std::string>& rules, bool dynamic);

  // True when a rule governs the path and refuses an anonymous caller.
  bool IsProtected(const std::string& path) const;
  // `user` null stands for an anonymous caller.
  bool HasAccess(const std::string& path, const model::User* user) const;
  // The paths of the static table that `user` may reach, ascending.
  std::vector<std::string> GetAllowedPaths(const model::User* user) const;

  // Why HasAccess answers as it does for `path`: the rule that governs it and whom that admits.
  struct Explanation {
    bool ruled = false;       // false: no rule governs the path, and it is open
    bool changeable = false;  // one of the dynamic rules
    std::string key;          // the rule's path or pattern
    std::string value;        // as it was set
    std::string stated_for;   // the path that it was set for; not the key when that is a parent
    std::vector<bool> admits;
  };
  // `admits` is of each of `users`, in their order, all of them judged by the same rule.
  Explanation Explain(const std::string& path, const std::vector<const model::User*>& users) const;
  // The same for the dynamic rule with the pattern `key`; not `ruled` when there is none.
  Explanation ExplainPattern(const std::string& key,
                             const std::vector<const model::User*>& users) const;
  // Whom a rule with this value would admit.
  static std::vector<bool> Judge(const std::string& value,
                                 const std::vector<const model::User*>& users);

 private:
  struct Rule;
  using Rules = std::map<std::string, std::unique_ptr<const Rule>>;

  Rules::const_iterator FindPattern(const std::string& path) const TEVRA_REQUIRES(mutex_);
  const model::Expression* FindRule(const std::string& path) const TEVRA_REQUIRES(mutex_);
  static Explanation Describe(Rules::const_iterator rule, bool changeable,
                              const std::vector<const model::User*>& users);
  void ParseRules(const std::map<std::string, std::string>& texts, Rules& rules) const;
  void CalculateImplicitRules(Rules& rules) const;
  static void DeleteRules(Rules& rules);

  tevra::core::Logger* const logger_;

  Rules exact_rules_ TEVRA_GUARDED_BY(mutex_);
  Rules pattern_rules_ TEVRA_GUARDED_BY(mutex_);
  // A leaf: nothing else is locked while it is held.
  mutable tevra::osa::Mutex mutex_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_RULE_MANAGER_H_
