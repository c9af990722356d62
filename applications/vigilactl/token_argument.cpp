#include "vigilactl/token_argument.h"

#include <cstdlib>

#include "vigilactl/exit_code.h"

namespace vigilactl {

std::string EnvironmentToken() {
  const char* token = std::getenv("VIGILA_TOKEN");
  return token == nullptr ? "" : token;
}

std::string TokenFrom(const std::string& argument) {
  const std::string token = argument.empty() ? EnvironmentToken() : argument;
  if (!token.empty()) return token;
  throw UsageError("no token: give one or set VIGILA_TOKEN (NO_TOKEN stands for the anonymous)");
}

}  // namespace vigilactl
