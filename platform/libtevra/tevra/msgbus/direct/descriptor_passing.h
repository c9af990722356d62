#ifndef TEVRA_MSGBUS_DIRECT_DESCRIPTOR_PASSING_H_
#define TEVRA_MSGBUS_DIRECT_DESCRIPTOR_PASSING_H_

#include <sys/types.h>

#include <span>
#include <string_view>

#include "tevra/osa/descriptor.h"

namespace tevra::msgbus {

// send and recv without waiting, with one descriptor beside the bytes.
ssize_t SendWithDescriptor(int socket, std::string_view bytes, int descriptor);
// `descriptor` is changed when one came; of several the last is taken and the others are closed.
ssize_t ReceiveWithDescriptor(int socket, std::span<char> space, osa::Descriptor* descriptor);

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_DIRECT_DESCRIPTOR_PASSING_H_
