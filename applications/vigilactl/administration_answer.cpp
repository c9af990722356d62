#include "vigilactl/administration_answer.h"

#include <ctime>

#include "krand/base64/base64.h"
#include "tevra/osa/exception.h"

namespace vigilactl {
namespace {

[[noreturn]] void ThrowUnreadable(const char* what) {
  throw tevra::osa::Exception("the service's answer cannot be read: %s", what);
}

}  // namespace

Json ReadAnswer(const std::string& text) {
  const Json answer = Json::parse(text, nullptr, false);
  if (!answer.is_object() || !answer.value("Code", Json()).is_number_integer()) {
    ThrowUnreadable("no object with a code");
  }
  return answer;
}

int CodeOf(const Json& answer) {
  return answer.at("Code").get<int>();
}

Json ReadPages(const char* member, const std::function<std::string(const std::string&)>& fetch) {
  Json entries = Json::array();
  std::string cursor;
  do {
    const Json page = ReadAnswer(fetch(cursor));
    if (CodeOf(page) != 0 || !page.value(member, Json()).is_array()) ThrowUnreadable(member);
    for (const Json& entry : page[member]) entries.push_back(entry);
    // A page that ends where it began would be asked for again and again.
    const std::string next = page.value("Next", "");
    if (!next.empty() && next == cursor) ThrowUnreadable("pages without an end");
    cursor = next;
  } while (!cursor.empty());
  return entries;
}

std::string NameIn(const Json& object, const std::string& member) {
  const auto found = object.find(member);
  if (found != object.end()) return found->get<std::string>();
  return krand::lib::Base64::Decode(object.at(member + "Base64").get<std::string>());
}

std::string ListNames(const Json& names) {
  const auto count = names.at("Count").get<size_t>();
  if (count == 0) return "no one";
  std::string text;
  size_t shown = 0;
  for (const Json& entry : names.at("Names")) {
    text += (shown++ == 0 ? "" : ", ") + NameIn(entry, "Name");
  }
  if (shown == 0) return std::to_string(count);
  if (count == shown + 1) return text + " and 1 other";
  return count > shown ? text + " and " + std::to_string(count - shown) + " others" : text;
}

std::string ListOpenTo(const Json& opening) {
  return opening.at("Everyone").get<bool>() ? "everyone" : ListNames(opening);
}

std::string ShowTime(const Json& seconds, const char* absent) {
  if (!seconds.is_number()) return absent;
  const auto time = static_cast<time_t>(seconds.get<int64_t>());
  tm parts;
  char text[32];
  if (localtime_r(&time, &parts) == nullptr) return absent;
  return std::string(text, strftime(text, sizeof(text), "%Y-%m-%d %H:%M", &parts));
}

std::string ShowDuration(int64_t seconds) {
  struct Unit {
    int64_t seconds;
    const char* name;
  };
  static constexpr Unit kUnits[] = {{2 * 86400, " days"}, {2 * 3600, " h"}, {120, " min"}};
  for (const Unit& unit : kUnits) {
    const int64_t one = unit.seconds / 2;
    if (seconds >= unit.seconds) return std::to_string(seconds / one) + unit.name;
  }
  return std::to_string(seconds) + " s";
}

}  // namespace vigilactl
