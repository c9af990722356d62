#ifndef VIGILAD_LISTINGS_H_
#define VIGILAD_LISTINGS_H_

namespace vigila::daemon {

// Both print to standard output, a sorted line each, from the tables by which the program works.
void ListKeys();        // "[MsgBus] timeout_ms = 5000"
void ListOperations();  // "admin tevra.interfaces.ISecurityProvider AddUsers"

}  // namespace vigila::daemon

#endif  // VIGILAD_LISTINGS_H_
