#ifndef VIGILA_GATEWAY_CONSOLE_SNAPSHOT_H_
#define VIGILA_GATEWAY_CONSOLE_SNAPSHOT_H_

#include <string>

namespace vigila::gateway {

// A grey test picture as a baseline JPEG of 64 by 48 pixels. Pictures of different numbers differ.
std::string MakeSnapshot(unsigned number);

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_CONSOLE_SNAPSHOT_H_
