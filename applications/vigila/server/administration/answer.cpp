#include "vigila/server/administration/answer.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "json/writer.h"
#include "krand/base64/base64.h"
#include "tevra/core/utf8.h"
#include "vigila/contract/groups.h"

namespace vigila::server::answer {
namespace {

constexpr size_t kNamesShown = 20;
// As many as any answer has: an object that needs more room copies its members, long lists too.
constexpr size_t kMembers = 16;

}  // namespace

json::Object WithCode(int code) {
  json::Object object;
  object.reserve(kMembers);
  object["Code"] = json::Number(code);
  return object;
}

std::string Text(json::Object object) {
  std::ostringstream text;
  json::Writer::Write(std::move(object), text);
  return text.str();
}

std::string CodeAlone(int code) {
  return Text(WithCode(code));
}

json::UnknownElement Time(int64_t seconds) {
  if (seconds == 0) return json::Null();
  return json::Number(seconds);
}

void SetName(json::Object& object, const std::string& member, const std::string& name) {
  if (tevra::core::IsUtf8(name)) {
    object[member] = json::String(name);
  } else {
    object[member + "Base64"] = json::String(krand::lib::Base64::Encode(name));
  }
}

void SetGroup(json::Object& object, tevra::interfaces::ISecurityProvider::Group group) {
  object["Group"] = json::Number(group);
  const char* const name = contract::GroupName(group);
  if (name != nullptr) object["GroupName"] = json::String(name);
}

json::Object Names(const std::vector<std::string>& names) {
  json::Array shown;
  for (size_t i = 0; i < std::min(names.size(), kNamesShown); ++i) {
    json::Object entry;
    SetName(entry, "Name", names[i]);
    shown.push_back(std::move(entry));
  }
  json::Object object;
  object["Count"] = json::Number(names.size());
  object["Names"] = std::move(shown);
  return object;
}

}  // namespace vigila::server::answer
