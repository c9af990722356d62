#ifndef VIGILA_SERVER_HA1_H_
#define VIGILA_SERVER_HA1_H_

#include <string>
#include <string_view>

namespace vigila::server {

// The digest that stands for a password in an HTTP digest logon, and by which a session is found
// again: MD5 of name, realm and password in lower-case hexadecimal. Whoever holds it can log on as
// with the password.
std::string MakeHA1(std::string_view name, std::string_view password);

}  // namespace vigila::server

#endif  // VIGILA_SERVER_HA1_H_
