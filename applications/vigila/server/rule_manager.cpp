#include "vigila/server/rule_manager.h"

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

}  // namespace

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
    if (rule->Evaluate(user)) paths.push_back(path);
  }
  return paths;
}

const Expression* RuleManager::FindRule(const std::string& path) const {
  // Contract: "*" is an ordinary character in the exact table: "/control/*" governs that very
  // text and, through its implied rule, "/control", but not what lies below.
  const auto exact = exact_rules_.find(path);
  if (exact != exact_rules_.end()) return exact->second.get();
  // Contract: the first pattern in byte order wins, not the most specific one.
  for (const auto& [pattern, rule] : pattern_rules_) {
    if (tevra::core::StringUtil::MatchesPattern(pattern, path)) return rule.get();
  }
  return nullptr;
}

void RuleManager::ParseRules(const std::map<std::string, std::string>& texts, Rules& rules) const {
  for (const auto& [path, value] : texts) {
    rules[path] = std::make_unique<const Expression>(ParseRule(value));
  }
}

void RuleManager::CalculateImplicitRules(Rules& rules) const {
  Rules implied;
  for (const auto& [path, rule] : rules) {
    // Every parent directory, nearest first; the first "/" ends nothing that could be a directory.
    const std::size_t first = path.find('/');
    for (std::size_t cut = path.rfind('/'); cut != first; cut = path.rfind('/', cut - 1)) {
      const std::string prefix = path.substr(0, cut);
      implied[prefix] = std::make_unique<const Expression>(*rule);
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
