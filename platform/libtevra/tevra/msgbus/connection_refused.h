#ifndef TEVRA_MSGBUS_CONNECTION_REFUSED_H_
#define TEVRA_MSGBUS_CONNECTION_REFUSED_H_

#include <string>
#include <utility>

#include "tevra/osa/exception.h"

namespace tevra::msgbus {

// What a server said instead of letting a client in.
class ConnectionRefused final : public osa::Exception {
 public:
  ConnectionRefused(const std::string& destination, std::string error_name, std::string text)
      : Exception("message bus: %s refuses the connection: %s", destination.c_str(), text.c_str()),
        error_name_(std::move(error_name)),
        text_(std::move(text)) {}

  const std::string& error_name() const { return error_name_; }
  const std::string& text() const { return text_; }

 private:
  const std::string error_name_;
  const std::string text_;
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_CONNECTION_REFUSED_H_
