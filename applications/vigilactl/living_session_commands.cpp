#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "vigila/contract/result_codes.h"
#include "vigilactl/administration_answer.h"
#include "vigilactl/commands.h"
#include "vigilactl/printable_text.h"
#include "vigilactl/result_sentences.h"
#include "vigilactl/text_table.h"
#include "vigilactl/word_kinds.h"

namespace vigilactl {
namespace {

ExitCode ListSessions(Invocation& invocation, const std::string& user) {
  const Json sessions = ReadPages("Sessions", [&](const std::string& cursor) {
    return invocation.Administration().GetSessions(invocation.OnBehalfOf(), user, cursor, 0);
  });
  TextTable table({"USER", "ID", "SINCE", "IDLE", "HOW", "FROM"});
  for (const Json& session : sessions) {
    const Json& source = session.at("Source");
    table.AddRow({NameIn(session, "User"), session.at("Id").get<std::string>(),
                  ShowTime(session.at("Since"), "unknown"),
                  ShowDuration(session.at("IdleSeconds").get<int64_t>()),
                  session.at("Scheme").get<std::string>(),
                  source.is_string() ? source.get<std::string>() : "unknown"});
  }
  return invocation.Answer({{"Sessions", sessions}}, table.Render(invocation.Width()));
}

ExitCode EndSession(Invocation& invocation, const std::string& id) {
  const int code =
      CodeOf(ReadAnswer(invocation.Administration().EndSession(invocation.OnBehalfOf(), id)));
  const Json object = {{"Id", id}, {"Code", code}};
  if (code == vigila::contract::kNoSuchSession) {
    return invocation.Refuse(object, "There is no session \"" + id +
                                         "\": \"vigilactl session list\" shows those that live.");
  }
  if (code != 0) return invocation.Refuse(object, SentenceOf(code));
  return invocation.Answer(object, "Ended the session " + Printable(id) + ".\n");
}

ExitCode EndSessionsOf(Invocation& invocation, const std::string& user) {
  const Json answer =
      ReadAnswer(invocation.Administration().EndSessions(invocation.OnBehalfOf(), user, false));
  const int code = CodeOf(answer);
  Json object = {{"User", user}, {"Code", code}};
  if (code == vigila::contract::kUnknownUser) {
    return invocation.Refuse(
        object, "There is no user \"" + user + "\": \"vigilactl user list\" shows all.");
  }
  if (code != 0) return invocation.Refuse(object, SentenceOf(code));
  const auto ended = answer.at("Ended").get<int64_t>();
  object["Ended"] = ended;
  return invocation.Answer(object, "Ended " + std::to_string(ended) +
                                       (ended == 1 ? " session" : " sessions") + " of " +
                                       Printable(user) + ".\n");
}

void AddListVerb(CLI::App& session, Invocation& invocation) {
  const auto user = std::make_shared<std::string>();
  CLI::App* verb = session.add_subcommand("list", "List the sessions that live");
  verb->add_option("--user", *user, "Only those of this account")->type_name(kAccountWord);
  verb->callback([&invocation, user] {
    invocation.Choose([&invocation, user] { return ListSessions(invocation, *user); });
  });
}

void AddEndVerb(CLI::App& session, Invocation& invocation) {
  const auto id = std::make_shared<std::string>();
  const auto user = std::make_shared<std::string>();
  CLI::App* verb = session.add_subcommand("end", "End one session, or all of an account");
  verb->add_option("ID", *id, "The session, as listed")->type_name(kSessionWord);
  verb->add_option("--user", *user, "Every session of this account")->type_name(kAccountWord);
  verb->callback([&invocation, id, user] {
    invocation.Choose([&invocation, id, user] {
      if (id->empty() == user->empty()) throw UsageError("give an ID or --user NAME, not both");
      return id->empty() ? EndSessionsOf(invocation, *user) : EndSession(invocation, *id);
    });
  });
}

}  // namespace

void AddLivingSessionCommands(CLI::App& app, Invocation& invocation) {
  CLI::App* session = app.add_subcommand("session", "Sessions that live: list, end");
  session->require_subcommand(1);
  AddListVerb(*session, invocation);
  AddEndVerb(*session, invocation);
}

}  // namespace vigilactl
