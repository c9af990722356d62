#include "vigila/client/command.h"

namespace vigila::client {

bool Command::MatchesToken(const std::string&) const {
  return false;
}

bool Command::IsLessThan(const Command&) const {
  return false;
}

bool Command::IsEqual(const Command&) const {
  return false;
}

}  // namespace vigila::client
