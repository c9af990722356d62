#ifndef VIGILACTL_PATH_NOTE_H_
#define VIGILACTL_PATH_NOTE_H_

#include <string>
#include <string_view>

#include "vigilactl/invocation.h"

namespace vigilactl {

// Why no web server asks the service about `path` as it is written; empty for a path that may be
// asked about. Rules match the written text, so the answer for another spelling says nothing about
// what a browser gets.
std::string PathDoubt(std::string_view path);

// Tells the person who asks about a path of such a doubt.
void NotePathAsWritten(Invocation& invocation, std::string_view path);

}  // namespace vigilactl

#endif  // VIGILACTL_PATH_NOTE_H_
