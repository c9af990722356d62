#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "utilc/uuid.h"
#include "vigila/contract/result_codes.h"
#include "vigila/server/administration/administration.h"
#include "vigila/server/administration/answer.h"
#include "vigila/server/administration/authority.h"
#include "vigila/server/rule_manager.h"
#include "vigila/server/security_provider.h"
#include "vigila/server/server_env.h"
#include "vigila/server/session_manager.h"

namespace vigila::server {
namespace {

using model::User;
using tevra::interfaces::ISecurityProvider;

// All accounts, as rules judge them. A rule looks at the group only, so one record stands for each:
// a rule is evaluated as often as there are groups, not accounts.
class Population final {
 public:
  explicit Population(UserMap& users) : users_(users), accounts_(users.ListStates("", SIZE_MAX)) {
    for (const AccountState& account : accounts_) RecordOf(account);
  }

  // Those that `record` must be judged beside: the anonymous caller first, then one of each group.
  std::vector<const User*> Records() const {
    std::vector<const User*> records = {users_.GetNobody()};
    for (const auto& [group, record] : records_) records.push_back(record.get());
    return records;
  }
  // The record by which an account is judged once it has logged on.
  const User& RecordOf(const AccountState& account) {
    // Until there is an administrator no one is logged on, and everyone is judged as "nobody".
    if (account.name == User::kAnonymousUsername || users_.NoAdministratorsYet()) {
      return *users_.GetNobody();
    }
    std::unique_ptr<const User>& record = records_[account.group];
    if (!record) {
      record = std::make_unique<const User>(account.name, "", users_.GetRights(account.group));
    }
    return *record;
  }
  // The names, "nobody" left out, of whose records `chosen` is true; in the order of Records().
  std::vector<std::string> NamesWhere(const std::vector<bool>& chosen) {
    std::map<const User*, bool> is_chosen;
    const std::vector<const User*> records = Records();
    for (size_t i = 0; i < records.size(); ++i) is_chosen[records[i]] = chosen[i];
    std::vector<std::string> names;
    for (const AccountState& account : accounts_) {
      if (account.name != User::kAnonymousUsername && is_chosen[&RecordOf(account)]) {
        names.push_back(account.name);
      }
    }
    return names;
  }

 private:
  UserMap& users_;
  const std::vector<AccountState> accounts_;
  std::map<ISecurityProvider::Group, std::unique_ptr<const User>> records_;
};

// To whom a rule opens its path. What is open to the anonymous caller is open to everyone.
json::Object DescribeOpening(Population& population, const std::vector<bool>& admits) {
  json::Object opening = answer::Names(population.NamesWhere(admits));
  opening["Everyone"] = json::Boolean(admits[0]);
  return opening;
}

json::Object DescribeRule(const RuleManager::Explanation& explanation) {
  json::Object rule;
  answer::SetName(rule, "Pattern", explanation.key);
  answer::SetName(rule, "Text", explanation.value);
  rule["Changeable"] = json::Boolean(explanation.changeable);
  if (explanation.stated_for != explanation.key) {
    answer::SetName(rule, "ImpliedBy", explanation.stated_for);
  }
  return rule;
}

json::Array DescribePermissions(const User& user) {
  json::Array permissions;
  for (const _uuid_t& permission : user.Permissions()) {
    char text[37];
    uuid_sprint(&permission, text);
    permissions.push_back(json::String(std::string("{") + text + "}"));
  }
  return permissions;
}

// Why `path` is open or closed to the account `name`, which is judged as `subject`; to
// administrators also who else may.
json::Object Explain(const RuleManager& rules, UserMap& users, const std::string& name,
                     const User& subject, const std::string& path, bool for_administrator) {
  Population population(users);
  std::vector<const User*> judged = population.Records();
  judged.push_back(&subject);
  RuleManager::Explanation explanation = rules.Explain(path, judged);
  json::Object object = answer::WithCode(contract::kApplied);
  object["Granted"] = json::Boolean(explanation.admits.back());
  object["Rule"] = json::Null();
  if (explanation.ruled) object["Rule"] = DescribeRule(explanation);
  answer::SetName(object, "User", name);
  answer::SetGroup(object, subject.GetGroup());
  object["Permissions"] = DescribePermissions(subject);
  explanation.admits.pop_back();
  if (for_administrator) object["OpenTo"] = DescribeOpening(population, explanation.admits);
  return object;
}

}  // namespace

std::string Administration::ExplainAccount(const Caller& caller, const std::string& name,
                                           const std::string& path) {
  SecurityProvider& provider = *env_.GetSecurityProvider();
  const Authority authority(caller, provider);
  authority.RequireAdministratorOr(name);
  UserMap& users = provider.Users();
  const std::optional<AccountState> state = users.GetState(name);
  if (!state) return answer::CodeAlone(contract::kUnknownUser);
  const User judged_as(Population(users).RecordOf(*state));
  json::Object object =
      Explain(env_.GetRuleManager(), users, name, judged_as, path, authority.IsAdministrator());
  return answer::Text(std::move(object));
}

std::string Administration::ExplainSession(const Caller& caller, const std::string& token,
                                           const std::string& path) {
  SecurityProvider& provider = *env_.GetSecurityProvider();
  const Authority authority(caller, provider);
  if (token != caller.token) authority.RequireAdministrator();
  const User subject(*provider.GetUser(token, true));
  json::Object object = Explain(env_.GetRuleManager(), provider.Users(), subject.Name(), subject,
                                path, authority.IsAdministrator());
  object["Session"] = json::Boolean(provider.GetUser(token, false) != nullptr);
  return answer::Text(std::move(object));
}

std::string Administration::GetRuleEffect(const Caller& caller, const std::string& path,
                                          const std::string& rule) {
  SecurityProvider& provider = *env_.GetSecurityProvider();
  Authority(caller, provider).RequireAdministrator();
  Population population(provider.Users());
  const std::vector<const User*> records = population.Records();
  const RuleManager::Explanation present = env_.GetRuleManager().ExplainPattern(path, records);
  if (!present.ruled) return answer::CodeAlone(contract::kNoSuchRule);
  const std::vector<bool> after = RuleManager::Judge(rule, records);
  std::vector<bool> gains(records.size());
  std::vector<bool> loses(records.size());
  for (size_t i = 0; i < records.size(); ++i) {
    gains[i] = after[i] && !present.admits[i];
    loses[i] = !after[i] && present.admits[i];
  }
  size_t sessions = 0;
  const std::vector<std::string> losers = population.NamesWhere(loses);
  for (const std::string& name : losers) sessions += env_.GetSessionManager().Count(name);

  json::Object object = answer::WithCode(contract::kApplied);
  object["Rule"] = DescribeRule(present);
  object["Gains"] = answer::Names(population.NamesWhere(gains));
  object["Loses"] = answer::Names(losers);
  object["Sessions"] = json::Number(sessions);  // of those that lose
  object["OpenTo"] = DescribeOpening(population, after);
  object["OpenNow"] = DescribeOpening(population, present.admits);
  return answer::Text(std::move(object));
}

}  // namespace vigila::server
