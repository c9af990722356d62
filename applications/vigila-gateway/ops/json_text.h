#ifndef VIGILA_GATEWAY_OPS_JSON_TEXT_H_
#define VIGILA_GATEWAY_OPS_JSON_TEXT_H_

#include <string>
#include <string_view>

namespace vigila::gateway {

// The text as a JSON string with its quotes, in ASCII controls and quotes escaped; a byte that is
// not part of UTF-8 becomes the replacement character.
std::string JsonText(std::string_view text);

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_OPS_JSON_TEXT_H_
