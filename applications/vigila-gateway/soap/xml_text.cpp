#include "vigila-gateway/soap/xml_text.h"

namespace vigila::gateway {

std::string XmlText(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '&':
        escaped.append("&amp;");
        break;
      case '<':
        escaped.append("&lt;");
        break;
      case '>':
        escaped.append("&gt;");
        break;
      default:
        escaped.push_back(c);
    }
  }
  return escaped;
}

}  // namespace vigila::gateway
