#ifndef VIGILAD_LISTINGS_H_
#define VIGILAD_LISTINGS_H_

#include <string>

namespace vigila::daemon {

// These print to standard output, a sorted line each, from the tables by which the program works.
void ListKeys();        // "[MsgBus] timeout_ms = 5000"
void ListOperations();  // "admin tevra.interfaces.ISecurityProvider AddUsers s users -> i code"

// Prints a served interface in D-Bus's introspection format; false when there is none of the name.
bool PrintInterface(const std::string& name);

}  // namespace vigila::daemon

#endif  // VIGILAD_LISTINGS_H_
