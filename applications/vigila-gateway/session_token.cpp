#include "vigila-gateway/session_token.h"

namespace vigila::gateway {

bool IsSessionToken(std::string_view text) {
  return text.size() == 8 && text.find_first_not_of("0123456789ABCDEF") == std::string_view::npos;
}

}  // namespace vigila::gateway
