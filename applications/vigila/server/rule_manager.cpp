#include "vigila/server/rule_manager.h"

#include <algorithm>
#include <utility>

#include "tevra/core/string_util.h"
#include "utilc/uuid.h"
#include "vigila/model/expression.h"
#include "vigila/model/user.h"

namespace vigila::server {

using model::Expression;
using model::User;
using tevra::core::Logger;
using tevra::osa::MutexAutoLock;

namespace {

Expression ParseRule(const std::string& value) {
  if (value.starts_with('{')) {
    // Contract: an identifier that cannot be read stays all zero and is not reported. The rule is
    // kept and admits no one, which is the safe way to be wrong.
    _uuid_t uuid = {};
    uuid_scan(value.c_str(), &uuid);
    return Expression::Permission(uuid);
  }
  if (value.starts_with('@')) return Expression::GroupName(value.substr(1));
  // Contract: "True", "1" and the like are the constant false.
  return Expression::Constant(value == "true");
}

std::vector<bool> JudgeAll(const Expression& rule, const std::vector<const User*>& users) {
  std::vector<bool> admits;
  admits.reserve(users.size());
  for (const User* user : users) admits.push_back(rule.Evaluate(user));
  return admits;
}

}  // namespace

// What decides, and how it was put.
struct RuleManager::Rule {
  Expression expression;
  std::string value;
  std::string stated_for;
};

RuleManager::RuleManager() : logger_(Logger::GetLogger("RuleManager")) {}

RuleManager::~RuleManager() {
  DeleteRules(exact_rules_);
  DeleteRules(pattern_rules_);
}

void RuleManager::SetRules(const std::map<std::string, std::string>& rules, bool dynamic) {
  Rules table;
  ParseRules(rules, table);
  if (!dynamic) CalculateImplicitRules(table);
  {
    MutexAutoLock lock(mutex_);
    table.swap(dynamic ? pattern_rules_ : exact_rules_);
  }
  DeleteRules(table);
}

// Contract: an anonymous caller is no user here, not the "nobody" account, so a permission that
// this account holds does not make a path unprotected.
bool RuleManager::IsProtected(const std::string& path) const {
  MutexAutoLock lock(mutex_);
  const Expression* const rule = FindRule(path);
  return rule != nullptr && !rule->Evaluate(nullptr);
}

bool RuleManager::HasAccess(const std::string& path, const User* user) const {
  MutexAutoLock lock(mutex_);
  const Expression* const rule = FindRule(path);
  return rule == nullptr || rule->Evaluate(user);
}

// Contract: patterns are no paths, so the dynamic rules are never listed; implied ones are.
std::vector<std::string> RuleManager::GetAllowedPaths(const User* user) const {
  MutexAutoLock lock(mutex_);
  std::vector<std::string> paths;
  for (const auto& [path, rule] : exact_rules_) {
    if (rule->expression.Evaluate(user)) paths.push_back(path);
  }
  return paths;
}

const Expression* RuleManager::FindRule(const std::string& path) const {
  // Contract: "*" is an ordinary character in the exact table: "/control/*" governs that very
  // text and, through its implied rule, "/control", but not what lies below.
  const auto exact = exact_rules_.find(path);
  if (exact != exact_rules_.end()) return &exact->second->expression;
  const auto pattern = FindPattern(path);
  return pattern == pattern_rules_.end() ? nullptr : &pattern->second->expression;
}

// Contract: the first pattern in byte order wins, not the most specific one.
RuleManager::Rules::const_iterator RuleManager::FindPattern(const std::string& path) const {
  return std::find_if(pattern_rules_.begin(), pattern_rules_.end(), [&](const auto& rule) {
    return tevra::core::StringUtil::MatchesPattern(rule.first, path);
  });
}

RuleManager::Explanation RuleManager::Explain(const std::string& path,
                                              const std::vector<const User*>& users) const {
  MutexAutoLock lock(mutex_);
  const auto exact = exact_rules_.find(path);
  if (exact != exact_rules_.end()) return Describe(exact, false, users);
  const auto pattern = FindPattern(path);
  if (pattern != pattern_rules_.end()) return Describe(pattern, true, users);
  Explanation open;
  open.admits.assign(users.size(), true);
  return open;
}

RuleManager::Explanation RuleManager::ExplainPattern(const std::string& key,
                                                     const std::vector<const User*>& users) const {
  MutexAutoLock lock(mutex_);
  const auto found = pattern_rules_.find(key);
  return found == pattern_rules_.end() ? Explanation() : Describe(found, true, users);
}

RuleManager::Explanation RuleManager::Describe(Rules::const_iterator rule, bool changeable,
                                               const std::vector<const User*>& users) {
  const auto& [key, stated] = *rule;
  return {true,          changeable,         key,
          stated->value, stated->stated_for, JudgeAll(stated->expression, users)};
}

std::vector<bool> RuleManager::Judge(const std::string& value,
                                     const std::vector<const User*>& users) {
  return JudgeAll(ParseRule(value), users);
}

void RuleManager::ParseRules(const std::map<std::string, std::string>& texts, Rules& rules) const {
  for (const auto& [path, value] : texts) {
    rules[path] = std::make_unique<const Rule>(Rule{ParseRule(value), value, path});
  }
}

void RuleManager::CalculateImplicitRules(Rules& rules) const {
  Rules implied;
  for (const auto& [path, rule] : rules) {
    // Every parent directory, nearest first; the first "/" ends nothing that could be a directory.
    const std::size_t first = path.find('/');
    for (std::size_t cut = path.rfind('/'); cut != first; cut = path.rfind('/', cut - 1)) {
      const std::string prefix = path.substr(0, cut);
      implied[prefix] = std::make_unique<const Rule>(*rule);
      logger_->Debug("adding rule for %s (implied from %s)", prefix.c_str(), path.c_str());
    }
  }
  // Contract: an implied rule takes the place of an explicit one for the same path, and of two
  // rules that imply the same path the one with the greater key wins.
  for (auto& [path, rule] : implied) rules[path] = std::move(rule);
}

void RuleManager::DeleteRules(Rules& rules) {
  rules.clear();
}

}  // namespace vigila::server
