#ifndef VIGILACTL_ADMINISTRATION_ANSWER_H_
#define VIGILACTL_ADMINISTRATION_ANSWER_H_

#include <cstdint>
#include <functional>
#include <string>

#include "vigilactl/invocation.h"

namespace vigilactl {

// An answer of the administration interface. Throws tevra::osa::Exception when it is none.
Json ReadAnswer(const std::string& text);
// 0 when it was done.
int CodeOf(const Json& answer);

// All entries of a listing that comes in pages; `fetch` asks for the page behind a cursor.
Json ReadPages(const char* member, const std::function<std::string(const std::string&)>& fetch);

// The name in `member`, whichever of its two forms it has.
std::string NameIn(const Json& object, const std::string& member);
// Out of a count and some names: "admin, olga and 3 others", "no one".
std::string ListNames(const Json& names);
// The same of those that a path is open to: "everyone" where the anonymous caller is among them.
std::string ListOpenTo(const Json& opening);

// A time as a person reads it here, "2026-11-21 14:02"; `absent` when it is null.
std::string ShowTime(const Json& seconds, const char* absent);
// "45 s", "12 min", "3 h", "2 days".
std::string ShowDuration(int64_t seconds);

}  // namespace vigilactl

#endif  // VIGILACTL_ADMINISTRATION_ANSWER_H_
