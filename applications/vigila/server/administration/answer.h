#ifndef VIGILA_SERVER_ADMINISTRATION_ANSWER_H_
#define VIGILA_SERVER_ADMINISTRATION_ANSWER_H_

#include <cstdint>
#include <string>
#include <vector>

#include "json/elements.h"
#include "tevra/interfaces/i_security_provider.h"

// The pieces that the answers of the administration interface are made of.
namespace vigila::server::answer {

// An answer with the member "Code" and no other yet.
json::Object WithCode(int code);
std::string Text(json::Object object);
// The answer of an operation that refuses, or has nothing to tell.
std::string CodeAlone(int code);

// Null for 0, which stands for never and for not known.
json::UnknownElement Time(int64_t seconds);
// As `member`, or as `member` + "Base64" when the name is not UTF-8.
void SetName(json::Object& object, const std::string& member, const std::string& name);
// "Group" and, of a group that has one, "GroupName".
void SetGroup(json::Object& object, tevra::interfaces::ISecurityProvider::Group group);
// {"Count":…,"Names":[…]}: how many they are, and some of them.
json::Object Names(const std::vector<std::string>& names);

}  // namespace vigila::server::answer

#endif  // VIGILA_SERVER_ADMINISTRATION_ANSWER_H_
