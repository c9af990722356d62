#ifndef VIGILA_SERVER_VIGILA_SERVER_H_
#define VIGILA_SERVER_VIGILA_SERVER_H_

#include "vigila/server/export.h"

namespace tevra::core {
class Logger;
}

namespace vigila::server {

class ServerEnv;

// The server's main loop: publishes the security provider on the bus, reports readiness to the
// service manager and sleeps until SIGINT or SIGTERM. Requests run on the bus's threads, never
// here.
class VIGILA_EXPORT VigilaServer {
 public:
  // `env` must outlive the server; it may still be under construction.
  explicit VigilaServer(ServerEnv& env);
  ~VigilaServer();
  VigilaServer(const VigilaServer&) = delete;
  VigilaServer& operator=(const VigilaServer&) = delete;

  // Returns 0 after an orderly stop. Throws tevra::osa::Exception "pipe failed", and a
  // StartFailure when the bus refuses the service; the signals have their default handling again
  // when it does. Takes over SIGINT and SIGTERM: one Run at a time in a process.
  int Run();

 private:
  ServerEnv& env_;
  tevra::core::Logger* const logger_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_VIGILA_SERVER_H_
