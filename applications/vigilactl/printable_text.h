#ifndef VIGILACTL_PRINTABLE_TEXT_H_
#define VIGILACTL_PRINTABLE_TEXT_H_

#include <cstddef>
#include <string>
#include <string_view>

namespace vigilactl {

// The text as a terminal may show it: bytes that are not UTF-8, control characters and the
// characters that reorder or hide text become "\xNN" per byte. A name must not steer the terminal
// of the administrator who lists it.
std::string Printable(std::string_view text);

// A JSON document with every byte that is not UTF-8 replaced by an escaped "\xNN", so that one
// odd account name does not make the whole listing unreadable.
std::string JsonWithoutStrayBytes(std::string_view document);

// Columns that a printable text takes on a terminal: two for a wide character, none for one that is
// drawn onto the character before it.
size_t DisplayWidth(std::string_view printable);

}  // namespace vigilactl

#endif  // VIGILACTL_PRINTABLE_TEXT_H_
