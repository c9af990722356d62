#include <cstdint>
#include <exception>
#include <istream>
#include <streambuf>
#include <utility>

#include "json/reader.h"
#include "tevra/core/json_utils.h"
#include "tevra/core/secret_text.h"
#include "vigila/contract/limits.h"
#include "vigila/server/security_provider.h"

namespace vigila::server {
namespace {

using model::User;
using tevra::interfaces::ISecurityProvider;

constexpr uint32_t kHighestGroup = ISecurityProvider::kNobody;

// Lets a stream read a text where it lies; a copy of the stream's own could not be wiped.
class BorrowedText final : public std::streambuf {
 public:
  explicit BorrowedText(const std::string& text) {
    char* const begin = const_cast<char*>(text.data());  // a get area is not written to
    setg(begin, begin, begin + text.size());
  }
};

// False when the text is no document of this kind, or lists no user.
bool ReadUsers(const std::string& text, json::Array& users) {
  try {
    BorrowedText borrowed(text);
    std::istream stream(&borrowed);
    json::Object document;
    json::Reader::Read(document, stream);
    users = std::move(document["Users"].get_ref<json::Array&>());
  } catch (const std::exception&) {
    return false;
  }
  return !users.empty();
}

// Null when the entry is no object or has no such member.
const json::UnknownElement* FindMember(const json::UnknownElement& entry, const char* name) {
  const auto* object = entry.get_ptr<const json::Object*>();
  return object == nullptr ? nullptr : json::FindMember(*object, name);
}

// Straight into `text`, which may be a password: a copy on the way could not be wiped.
bool ReadText(const json::UnknownElement* element, std::string& text) {
  if (element == nullptr) return false;
  const auto* string = element->get_ptr<const json::String*>();
  if (string == nullptr) return false;
  text = *string;
  return true;
}

bool ReadNumber(const json::UnknownElement* element, uint32_t& number) {
  if (element == nullptr) return false;
  try {
    number = tevra::core::JsonUtils::AsUnsigned(*element);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

// Contract: the characters come last, so that a taken name is reported as taken whatever is in
// it. A zero byte is one of them: the settings know accounts by C texts, and two names that differ
// only behind a zero byte would share one key.
int CheckNewName(const std::string& name, const UserMap& store, const UserMap& changes) {
  if (name == User::kAnonymousUsername) return SecurityProvider::kNameTaken;
  if (name.size() < contract::kMinNameBytes) return SecurityProvider::kNameTooShort;
  if (name.size() > contract::kMaxNameBytes) return SecurityProvider::kNameTooLong;
  if (store.Exists(name) || changes.Exists(name)) return SecurityProvider::kNameTaken;
  if (name.find_first_of(std::string_view(" #/\0", 4)) != std::string::npos) {
    return SecurityProvider::kNameHasBadCharacter;
  }
  return SecurityProvider::kApplied;
}

int ReadNewPassword(const json::UnknownElement& entry, const UserMap& store,
                    std::string& password) {
  if (!ReadText(FindMember(entry, "Password"), password)) return SecurityProvider::kMalformed;
  // Contract: no name, so that only the length counts; an account that is to be has no history.
  return store.ValidatePassword("", "", password);
}

// Leaves `password` empty, which keeps the present one, when the entry gives none.
int ReadChangedPassword(const json::UnknownElement& entry, const std::string& name,
                        const UserMap& store, std::string& password) {
  // Contract: the anonymous account's is not even looked at.
  if (name == User::kAnonymousUsername) return SecurityProvider::kApplied;
  const json::UnknownElement* member = FindMember(entry, "Password");
  if (member == nullptr) return SecurityProvider::kApplied;
  if (!ReadText(member, password)) return SecurityProvider::kMalformed;
  // Contract: a password that is present and empty is too short, not absent.
  return store.ValidatePassword(name, "", password);
}

// Contract: "nobody" may take 0, which leaves the anonymous account no permission at all.
int CheckGroup(uint32_t group, const std::string& name) {
  const bool nobody = name == User::kAnonymousUsername;
  if (group > kHighestGroup) return SecurityProvider::kBadGroup;
  switch (group) {
    case ISecurityProvider::kOperators:
    case ISecurityProvider::kViewers:
      return SecurityProvider::kApplied;
    case ISecurityProvider::kNoGroup:
    case ISecurityProvider::kNobody:
      return nobody ? SecurityProvider::kApplied : SecurityProvider::kGroupOnlyForNobody;
    case ISecurityProvider::kAdministrators:
    case ISecurityProvider::kManagers:
      return nobody ? SecurityProvider::kBadGroup : SecurityProvider::kApplied;
    default:
      return SecurityProvider::kBadGroup;
  }
}

// Checks one entry in the order that decides which code a caller sees, and notes its change.
int ProcessEntry(const json::UnknownElement& entry, bool add, const UserMap& store,
                 UserMap& changes) {
  std::string name;
  if (!ReadText(FindMember(entry, "Name"), name)) return SecurityProvider::kMalformed;
  std::string password;
  const tevra::core::ScopedWipe wipe(password);
  int code = SecurityProvider::kApplied;
  if (add) {
    code = CheckNewName(name, store, changes);
    if (code == SecurityProvider::kApplied) code = ReadNewPassword(entry, store, password);
  } else {
    if (!store.Exists(name)) return SecurityProvider::kUnknownUser;
    code = ReadChangedPassword(entry, name, store, password);
  }
  if (code != SecurityProvider::kApplied) return code;

  uint32_t group = 0;
  if (!ReadNumber(FindMember(entry, "Group"), group)) return SecurityProvider::kMalformed;
  code = CheckGroup(group, name);
  if (code != SecurityProvider::kApplied) return code;
  // Contract: an account that is modified twice in one request keeps the last change.
  changes.Set(name, password, static_cast<ISecurityProvider::Group>(group));
  return SecurityProvider::kApplied;
}

}  // namespace

int SecurityProvider::AddUsers(const std::string& json) {
  return ProcessJson(json, true);
}

int SecurityProvider::ModifyUsers(const std::string& json) {
  return ProcessJson(json, false);
}

// Only reading the request is forgiven with kMalformed. What the store throws, because it cannot be
// loaded or written, reaches the caller: nothing has changed then, and no code would say why.
int SecurityProvider::ProcessJson(const std::string& json, bool add) {
  UserMap changes(nullptr);
  json::Array entries;
  if (!ReadUsers(json, entries)) return kMalformed;
  // Contract: before any entry is looked at, so that a full store answers every request alike.
  if (add && entries.size() + users_.Size() > contract::kMaxUsers) return kTooManyUsers;
  for (const json::UnknownElement& entry : entries) {
    const int code = ProcessEntry(entry, add, users_, changes);
    if (code != kApplied) return code;
  }
  const int merged = users_.Merge(changes);
  if (merged >= 0) return merged;
  // Contract: only a store that changed is announced, whereas deleting announces every success.
  FireChangeListeners(true);
  return kApplied;
}

int SecurityProvider::DeleteUsers(const std::vector<std::string>& names) {
  UserMap changes(nullptr);
  // Contract: the first name that cannot be deleted decides, and nothing is deleted then.
  for (const std::string& name : names) {
    if (name == User::kAnonymousUsername) return kNobodyNotDeletable;
    if (!users_.Exists(name)) return kUnknownUser;
    changes.Set(name, "", users_.GetGroup(name));
  }
  const int code = users_.Delete(changes);
  // Contract: also after a list of no names, which deletes nothing.
  if (code == kApplied) FireChangeListeners(true);
  return code;
}

}  // namespace vigila::server
