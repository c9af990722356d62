#ifndef TEVRA_MSGBUS_INTERFACE_XML_H_
#define TEVRA_MSGBUS_INTERFACE_XML_H_

#include <string>

#include "tevra/msgbus/served_interface.h"

namespace tevra::msgbus {

// Descriptions in D-Bus's introspection format. Names are such as D-Bus allows, so nothing is
// escaped.
struct InterfaceXml {
  // A whole document: `elements` inside its one node.
  static std::string Document(const std::string& elements);
  static std::string Of(const ServedInterface& served);
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_INTERFACE_XML_H_
