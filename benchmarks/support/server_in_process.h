#ifndef BENCHMARKS_SUPPORT_SERVER_IN_PROCESS_H_
#define BENCHMARKS_SUPPORT_SERVER_IN_PROCESS_H_

#include <memory>
#include <string>

#include "krand/base64/base64.h"
#include "support/platform_fixture.h"
#include "tevra/core/logger.h"
#include "vigila/server/security_provider.h"
#include "vigila/server/server_env.h"

namespace benchmarks {

// Takes the lines that a daemon would log, formatted, and drops them: what is measured is the
// service, not the journal.
class DiscardingLog final : public tevra::core::Logger::Sink {
 public:
  DiscardingLog() {
    tevra::core::Logger::SetSink(this);
    tevra::core::Logger::SetLevel(tevra::core::Logger::kNotice);
  }
  ~DiscardingLog() override { tevra::core::Logger::SetSink(nullptr); }
  void Write(tevra::core::Logger::Level, const std::string&, const std::string&) override {}
};

// The daemon's own objects, with its clock, its store on disk and a key of the default size, in a
// directory that goes at the end. One administrator, "admin", and one viewer, "alice".
class ServerInProcess {
 public:
  ServerInProcess() : env_(std::make_unique<vigila::server::ServerEnv>()) {
    Provider().AddUsers(
        "{\"Users\":[{\"Name\":\"admin\",\"Password\":\"adminpass\",\"Group\":1},"
        "{\"Name\":\"alice\",\"Password\":\"secret\",\"Group\":8}]}");
  }

  vigila::server::ServerEnv& Env() { return *env_; }
  vigila::server::SecurityProvider& Provider() { return *env_->GetSecurityProvider(); }
  const support::PlatformFixture& Platform() const { return platform_; }

  std::string Logon(const std::string& name, const std::string& password) {
    return Provider().Authenticate(false, krand::lib::Base64::Encode(name),
                                   krand::lib::Base64::Encode(password));
  }

 private:
  support::PlatformFixture platform_;
  DiscardingLog log_;
  std::unique_ptr<vigila::server::ServerEnv> env_;
};

}  // namespace benchmarks

#endif  // BENCHMARKS_SUPPORT_SERVER_IN_PROCESS_H_
