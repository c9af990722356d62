#include "vigilactl/doctor_facts.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "support/temp_dir.h"
#include "tevra/osa/descriptor.h"

namespace vigilactl {
namespace {

using State = GatewayFacts::State;

TEST(SeenFile, TellsAMissingFileFromOneThatMayNotBeSeen) {
  const support::TempDir dir;
  const std::string path = dir.Write("file", "");
  chmod(path.c_str(), 0640);
  const SeenFile seen = SeenFile::LookAt(path);
  EXPECT_TRUE(seen.IsSeen());
  EXPECT_EQ(seen.mode, static_cast<mode_t>(S_IFREG | 0640));
  EXPECT_EQ(seen.owner, geteuid());
  EXPECT_TRUE(SeenFile::LookAt(dir.File("none")).IsMissing());
  EXPECT_TRUE(SeenFile::LookAt(path + "/below").IsMissing());
  // As root sees everything: a name that no call takes.
  EXPECT_EQ(SeenFile::LookAt(std::string(5000, 'x')).sight, SeenFile::Sight::kHidden);
}

std::string Unit(const std::string& active, const std::string& command) {
  return "ExecStart={ path=/usr/sbin/vigila-gateway ; argv[]=" + command +
         " ; ignore_errors=no ; pid=0 }\nLoadState=loaded\nActiveState=" + active + "\n";
}

TEST(GatewayUnit, SaysWhetherItRunsAndWhereItListens) {
  const GatewayFacts gateway = ReadGatewayUnit(
      Unit("active", "/usr/sbin/vigila-gateway --port 8090 --trusted-proxy 127.0.0.1"));
  EXPECT_EQ(gateway.state, State::kRuns);
  EXPECT_EQ(gateway.address, "127.0.0.1");
  EXPECT_EQ(gateway.port, 8090);
  const GatewayFacts other =
      ReadGatewayUnit(Unit("active", "vigila-gateway --listen=0.0.0.0 --port=443"));
  EXPECT_EQ(other.address, "0.0.0.0");
  EXPECT_EQ(other.port, 443);
}

TEST(GatewayUnit, HasNoAddressWithoutAPortOfItsOwn) {
  for (const char* command : {"g", "g --port", "g --port 0", "g --port x", "g --port 65536",
                              "g --port -1", "g --metrics-port 9", "g --port 80x"}) {
    const GatewayFacts gateway = ReadGatewayUnit(Unit("active", command));
    EXPECT_EQ(gateway.state, State::kRuns) << command;
    EXPECT_EQ(gateway.address, "") << command;
  }
}

TEST(GatewayUnit, MayBeStoppedFailedMissingOrUnknown) {
  EXPECT_EQ(ReadGatewayUnit(Unit("inactive", "g")).state, State::kStopped);
  EXPECT_EQ(ReadGatewayUnit(Unit("failed", "g")).state, State::kFailed);
  EXPECT_EQ(ReadGatewayUnit("LoadState=not-found\nActiveState=inactive\n").state,
            State::kNotInstalled);
  EXPECT_EQ(ReadGatewayUnit("").state, State::kUnknown);
}

class ListeningGateway : public testing::Test {
 protected:
  ListeningGateway() : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    socklen_t size = sizeof(address);
    EXPECT_EQ(getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    gateway_ = {State::kRuns, "127.0.0.1", ntohs(address.sin_port), ""};
  }
  std::string Failure() {
    TryGateway(gateway_);
    return gateway_.failure;
  }

  tevra::osa::Descriptor socket_;
  GatewayFacts gateway_;
};

TEST_F(ListeningGateway, IsConnectedTo) {
  ASSERT_EQ(listen(socket_.get(), 4), 0);
  EXPECT_EQ(Failure(), "");
  gateway_.address = "0.0.0.0";
  EXPECT_EQ(Failure(), "");
}

TEST_F(ListeningGateway, IsMissedWhenItDoesNotListen) {
  EXPECT_EQ(Failure(), "Connection refused");
  gateway_.address = "no address";
  EXPECT_EQ(Failure(), "Cannot assign requested address");
}

TEST_F(ListeningGateway, IsNotConnectedToWhenItDoesNotRun) {
  gateway_.state = State::kStopped;
  EXPECT_EQ(Failure(), "");
}

}  // namespace
}  // namespace vigilactl
