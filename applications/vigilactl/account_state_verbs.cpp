#include "vigilactl/account_state_verbs.h"

#include <ctime>
#include <string>

#include "vigila/contract/groups.h"
#include "vigila/contract/result_codes.h"
#include "vigilactl/administration_answer.h"
#include "vigilactl/groups.h"
#include "vigilactl/printable_text.h"
#include "vigilactl/result_sentences.h"
#include "vigilactl/text_table.h"
#include "vigilactl/text_verb.h"
#include "vigilactl/word_kinds.h"

namespace vigilactl {
namespace {

std::string ShowState(const Json& account) {
  if (account.at("Locked").get<bool>()) {
    return "locked (" + std::to_string(account.at("WrongPasswords").get<int64_t>()) + " wrong)";
  }
  if (account.at("Expired").get<bool>()) return "expired";
  return account.at("Passwordless").get<bool>() ? "no password" : "ok";
}

std::string ShowExpiry(const Json& account, int64_t now) {
  if (account.at("Expired").get<bool>()) return "expired";
  const Json& expires = account.at("Expires");
  if (!expires.is_number()) return "never";
  const int64_t left = expires.get<int64_t>() - now;
  return left < 86400 ? "today" : "in " + std::to_string(left / 86400) + " days";
}

ExitCode ListUsers(Invocation& invocation) {
  const Json users = ReadPages("Accounts", [&](const std::string& cursor) {
    return invocation.Administration().GetAccounts(invocation.OnBehalfOf(), cursor, 0);
  });
  TextTable table({"NAME", "GROUP", "STATE", "EXPIRES", "LAST LOGON", "SESSIONS"});
  const int64_t now = time(nullptr);
  for (const Json& user : users) {
    const std::string name = NameIn(user, "Name");
    const std::string group = GroupName(user.at("Group").get<uint32_t>());
    const std::string sessions = std::to_string(user.at("Sessions").get<int64_t>());
    if (name == vigila::contract::kNobodyName) {
      // Who has no session at all: it has neither password nor logon.
      table.AddRow({name, group, "ok", "-", "-", "-"});
    } else {
      table.AddRow({name, group, ShowState(user), ShowExpiry(user, now),
                    ShowTime(user.at("LastLogon"), "unknown"), sessions});
    }
  }
  return invocation.Answer({{"Users", users}}, table.Render(invocation.Width()));
}

ExitCode UnlockUser(Invocation& invocation, const std::string& name) {
  const Json answer =
      ReadAnswer(invocation.Administration().UnlockAccount(invocation.OnBehalfOf(), name));
  const int code = CodeOf(answer);
  Json object = {{"Name", name}, {"Code", code}};
  if (code == vigila::contract::kUnknownUser) {
    return invocation.Refuse(
        object, "There is no user \"" + name + "\": \"vigilactl user list\" shows all.");
  }
  if (code != 0) return invocation.Refuse(object, SentenceOf(code));
  const bool was_locked = answer.at("WasLocked").get<bool>();
  object["WasLocked"] = was_locked;
  return invocation.Answer(object, was_locked ? "Unlocked " + Printable(name) + ".\n"
                                              : Printable(name) + " was not locked.\n");
}

}  // namespace

void AddAccountStateVerbs(CLI::App& user, Invocation& invocation) {
  user.add_subcommand("list", "List all accounts and how they stand")->callback([&invocation] {
    invocation.Choose([&invocation] { return ListUsers(invocation); });
  });
  AddTextVerb(user, invocation, "unlock", "Let a locked account in again; its password stays",
              {"NAME", "The account", true, kAccountWord}, UnlockUser);
}

}  // namespace vigilactl
