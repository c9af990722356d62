#include "vigilactl/completion.h"

#include <algorithm>
#include <utility>

#include "vigila/contract/groups.h"
#include "vigila/contract/rules.h"
#include "vigilactl/account_listing.h"
#include "vigilactl/administration_answer.h"
#include "vigilactl/command_line.h"
#include "vigilactl/groups.h"
#include "vigilactl/permission_names.h"
#include "vigilactl/printable_text.h"
#include "vigilactl/word_kinds.h"

namespace vigilactl {
namespace {

using OfferList = std::vector<Offer>;

OfferList OfferAccounts(Invocation& invocation) {
  invocation.Configure();
  OfferList offers;
  for (const ListedAccount& account : ListAccounts(invocation.Provider())) {
    offers.push_back({account.name, GroupName(account.group)});
  }
  return offers;
}

OfferList OfferSessions(Invocation& invocation) {
  invocation.Configure();
  OfferList offers;
  const Json sessions = ReadPages("Sessions", [&](const std::string& cursor) {
    return invocation.Administration().GetSessions(invocation.OnBehalfOf(), "", cursor, 0);
  });
  for (const Json& session : sessions) {
    offers.push_back({session.at("Id").get<std::string>(), NameIn(session, "User")});
  }
  return offers;
}

OfferList OfferPassphrases(Invocation& invocation) {
  invocation.Configure();
  OfferList offers;
  const Json document = Json::parse(JsonWithoutStrayBytes(invocation.Provider().GetPassphrases()));
  for (const Json& entry : document.at("Passphrases")) {
    offers.push_back({entry.at("ID").get<std::string>(), entry.at("Alias").get<std::string>()});
  }
  return offers;
}

OfferList OfferGroups(Invocation&) {
  OfferList offers;
  for (const auto& group : vigila::contract::kRuleGroups) offers.push_back({group.name, ""});
  return offers;
}

OfferList OfferRulePaths(Invocation&) {
  OfferList offers;
  for (const auto& rule : vigila::contract::kRules) {
    offers.push_back({rule.path, rule.setting == nullptr ? "cannot be changed" : ""});
  }
  return offers;
}

OfferList OfferRules(Invocation& invocation) {
  OfferList offers = {{vigila::contract::kOpenToEveryone, ""}, {"false", ""}};
  for (const Offer& group : OfferGroups(invocation)) offers.push_back({"@" + group.word, ""});
  for (Offer& rule : offers) rule.help = RuleMeaning(rule.word);
  return offers;
}

struct Source {
  const char* kind;
  OfferList (*offer)(Invocation&);
};

constexpr Source kSources[] = {
    {kAccountWord, OfferAccounts},   {kGroupWord, OfferGroups},
    {kSessionWord, OfferSessions},   {kPassphraseWord, OfferPassphrases},
    {kRulePathWord, OfferRulePaths}, {kRuleWord, OfferRules},
};

// A name may hold anything, and shells treat what they are offered as their own text.
bool IsPlain(const std::string& word) {
  return !word.empty() && word.front() != '-' && std::all_of(word.begin(), word.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("._@*/+:=-").find(c) != std::string_view::npos;
  });
}

Offers OffersOfKind(Invocation& invocation, const std::string& kind) {
  Offers offers;
  offers.files = kind == kFileWord;
  for (const Source& source : kSources) {
    if (kind != source.kind) continue;
    try {
      offers.words = source.offer(invocation);
    } catch (const std::exception&) {
      // No configuration, no service, no role: there is nothing to offer, and no one to tell.
    }
  }
  std::erase_if(offers.words, [](const Offer& offer) { return !IsPlain(offer.word); });
  return offers;
}

// What the argument in this place is; empty when nothing is known of it.
std::string KindOfArgument(const CLI::App& verb, size_t place) {
  for (const CLI::Option* argument :
       verb.get_options([](const CLI::Option* option) { return option->get_positional(); })) {
    const auto most = static_cast<size_t>(argument->get_expected_max());
    // "[NAME] PATH" is one argument to the parser, and the path is of no kind.
    const bool two_in_one = most == 2 && place == 1;
    if (place < most) return two_in_one ? "" : argument->get_type_name();
    place -= most;
  }
  return {};
}

Offers AllOffers(const CLI::App& app, Invocation& invocation, const std::vector<std::string>& words,
                 const std::string& last) {
  const CommandWords followed = FollowWords(app, words);
  if (!followed.unknown.empty()) return {};
  if (followed.awaiting != nullptr) {
    return OffersOfKind(invocation, followed.awaiting->get_type_name());
  }
  const CLI::App& verb = *followed.verb;
  Offers offers;
  if (last.starts_with('-')) {
    for (const std::string& name : OptionNames(verb)) {
      offers.words.push_back({name, FindOption(verb, name)->get_description()});
    }
    return offers;
  }
  for (const std::string& name : VerbNames(verb)) {
    offers.words.push_back({name, verb.get_subcommand(name)->get_description()});
  }
  if (!offers.words.empty()) return offers;
  return OffersOfKind(invocation, KindOfArgument(verb, followed.arguments));
}

}  // namespace

Offers OffersFor(const CLI::App& app, Invocation& invocation, std::vector<std::string> words) {
  if (words.empty()) words.emplace_back();
  const std::string last = std::exchange(words.back(), "");
  words.pop_back();
  // "help user" is followed by what may follow "user".
  const bool help = !words.empty() && words.front() == "help";
  if (help) words.erase(words.begin());
  Offers offers = AllOffers(app, invocation, words, last);
  if (help && VerbNames(*FollowWords(app, words).verb).empty()) return {};
  std::erase_if(offers.words, [&](const Offer& offer) { return !offer.word.starts_with(last); });
  return offers;
}

ExitCode Complete(const CLI::App& app, Invocation& invocation,
                  const std::vector<std::string>& words) {
  invocation.config_file = FollowWords(app, words).config_file;
  const Offers offers = OffersFor(app, invocation, words);
  std::string text = offers.files ? "files\n" : "words\n";
  for (const Offer& offer : offers.words) text += offer.word + '\t' + Printable(offer.help) + '\n';
  return invocation.Answer({}, text);
}

}  // namespace vigilactl
