#ifndef TEVRA_MSGBUS_DIRECT_PEER_CREDENTIALS_H_
#define TEVRA_MSGBUS_DIRECT_PEER_CREDENTIALS_H_

#include "tevra/msgbus/msg_bus_msg.h"

namespace tevra::msgbus {

// Who is at the other end of a connected Unix socket, as the kernel noted it: for a server, whoever
// called connect; for a client, whoever called listen. Throws tevra::osa::Exception.
Credentials PeerCredentials(int socket);

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_DIRECT_PEER_CREDENTIALS_H_
