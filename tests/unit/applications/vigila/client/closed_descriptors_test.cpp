// A program that closes every descriptor under an open client, as daemons do that begin with
// closefrom().

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "support/platform_fixture.h"
#include "support/recording_provider.h"
#include "tevra/msgbus/msg_bus.h"
#include "tevra/osa/sanitizer.h"
#include "vigila/client/vigila_client.h"

namespace {

using support::RecordingProvider;
using tevra::interfaces::ISecurityProvider;
using tevra::msgbus::MsgBus;
using vigila::client::VigilaClient;

// Grants until someone invalidates.
class RevocableProvider final : public RecordingProvider {
 public:
  bool Authorize(const std::string&, const std::string&) override { return grants; }
  void Invalidate(const std::string&) override { grants = false; }
  std::atomic<bool> grants = true;
};

// 0 when the client asks anew and no grant outlives its revocation for longer than it takes to
// notice; the service's broadcast finds no one who listens.
int CloseAllAndRevoke() {
  const VigilaClient client;
  if (!client.Authorize("12345678", "/jpeg/1")) return 1;
  for (int fd = 3; fd < 1024; ++fd) close(fd);
  client.Invalidate("alice");
  // Asked without a pause, so that the answer never gets old.
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (client.Authorize("12345678", "/jpeg/1")) {
    if (std::chrono::steady_clock::now() > until) return 2;
  }
  return client.Authorize("12345678", "/jpeg/2") ? 3 : 0;
}

TEST(AClientWhoseDescriptorsWereClosed, NoticesARevocation) {
#if defined(TEVRA_THREAD_SANITIZER)
  GTEST_SKIP() << "the sanitizer allows no threads after fork";
#endif
  const support::PlatformFixture platform;
  RevocableProvider provider;
  MsgBus bus;
  const std::unique_ptr<ISecurityProvider::IServer> server(
      ISecurityProvider::CreateServer(&bus, &provider));
  bus.StartServer();
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    _exit(CloseAllAndRevoke());
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_FALSE(provider.grants);
}

}  // namespace
