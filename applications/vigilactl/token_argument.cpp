#include "vigilactl/token_argument.h"

#include <cstdlib>

#include "vigilactl/exit_code.h"

namespace vigilactl {

std::string TokenFrom(const std::string& argument) {
  if (!argument.empty()) return argument;
  const char* token = std::getenv("VIGILA_TOKEN");
  if (token != nullptr && *token != '\0') return token;
  throw UsageError("no token: give one or set VIGILA_TOKEN (NO_TOKEN stands for the anonymous)");
}

}  // namespace vigilactl
