#ifndef TEVRA_MSGBUS_DIRECT_DIRECT_LISTENER_H_
#define TEVRA_MSGBUS_DIRECT_DIRECT_LISTENER_H_

#include <sys/types.h>

#include <string>

#include "tevra/osa/descriptor.h"

namespace tevra::msgbus {

// A destination's listening socket and the lock that says its server lives. What a dead server left
// behind is taken over; a live one is never disturbed. Clients see the socket only once it listens.
class DirectListener final {
 public:
  // Throws tevra::osa::Exception, also when another server holds the destination.
  DirectListener(const std::string& runtime_dir, const std::string& name, mode_t mode);
  ~DirectListener();
  DirectListener(const DirectListener&) = delete;
  DirectListener& operator=(const DirectListener&) = delete;

  int fd() const { return socket_.get(); }

 private:
  void TakeLock(const std::string& path, const std::string& name);
  void Listen(const std::string& hidden_path, mode_t mode);

  const std::string path_;
  osa::Descriptor lock_;
  osa::Descriptor socket_;
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_DIRECT_DIRECT_LISTENER_H_
