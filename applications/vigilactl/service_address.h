#ifndef VIGILACTL_SERVICE_ADDRESS_H_
#define VIGILACTL_SERVICE_ADDRESS_H_

#include <string>

namespace vigilactl {

// Where the configuration says that the service is.
struct ServiceAddress {
  std::string transport;  // "direct" or "broker"
  std::string address;    // the runtime directory, or the broker's

  // Throws tevra::osa::Exception when the configuration cannot be read.
  static ServiceAddress Configured();
};

// Why no connection to the service can be opened there, and what to look at, in one sentence. Empty
// when its socket takes connections, so that a failure has another reason; and of a broker, which
// cannot be asked without a connection.
std::string WhyUnreachable(const ServiceAddress& service);

}  // namespace vigilactl

#endif  // VIGILACTL_SERVICE_ADDRESS_H_
