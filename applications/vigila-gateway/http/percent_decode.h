#ifndef VIGILA_GATEWAY_HTTP_PERCENT_DECODE_H_
#define VIGILA_GATEWAY_HTTP_PERCENT_DECODE_H_

#include <optional>
#include <string>
#include <string_view>

namespace vigila::gateway {

// The bytes that the text stands for, each escape ("%2F") undone once; nothing when one is broken.
std::optional<std::string> PercentDecode(std::string_view text);

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_HTTP_PERCENT_DECODE_H_
