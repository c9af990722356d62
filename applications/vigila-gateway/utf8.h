#ifndef VIGILA_GATEWAY_UTF8_H_
#define VIGILA_GATEWAY_UTF8_H_

#include <cstddef>
#include <string_view>

namespace vigila::gateway {

// Length of the well-formed UTF-8 sequence at the start of the text; 0 when there is none. Overlong
// forms and surrogates are not well-formed: a later decoder could read "/" or "." in them.
size_t Utf8SequenceLength(std::string_view text);

bool IsUtf8(std::string_view text);

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_UTF8_H_
