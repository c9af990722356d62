#ifndef TEVRA_INTERFACES_ACCESS_DENIED_H_
#define TEVRA_INTERFACES_ACCESS_DENIED_H_

#include "tevra/osa/exception.h"

namespace tevra::interfaces {

// What a proxy throws when the server refused the caller; the message names the missing role.
class AccessDenied : public osa::Exception {
 public:
  explicit AccessDenied(const char* text) : osa::Exception("%s", text) {}
};

}  // namespace tevra::interfaces

#endif  // TEVRA_INTERFACES_ACCESS_DENIED_H_
