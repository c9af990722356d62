#ifndef VIGILA_GATEWAY_SOAP_XML_TEXT_H_
#define VIGILA_GATEWAY_SOAP_XML_TEXT_H_

#include <string>
#include <string_view>

namespace vigila::gateway {

// The text as content of an XML element.
std::string XmlText(std::string_view text);

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_SOAP_XML_TEXT_H_
