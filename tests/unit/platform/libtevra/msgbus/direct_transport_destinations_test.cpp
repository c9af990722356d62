#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "direct_transport_fixture.h"
#include "hostile_server.h"
#include "support/raw_socket.h"
#include "tevra/msgbus/msg_bus.h"
#include "tevra/osa/exception.h"

namespace tevra::msgbus {
namespace {

using osa::Exception;

using DirectTransportDestinations = DirectTransportTest;

TEST_F(DirectTransportDestinations, RefusesNamesThatCouldLeaveTheDirectory) {
  auto bus = NewBus();
  for (const char* name : {"", ".", "..", "../x", "a/b", ".hidden", "a b", "a\n", "\xc3\xa9"}) {
    EXPECT_THROW(bus->RegisterDestinationName(name), Exception) << name;
    EXPECT_THROW(Call(*bus, MsgBusMsg(kInterface, "Echo", std::string(name) + "/")), Exception);
    EXPECT_THROW(bus->WatchDestination(name), Exception) << name;
  }
  EXPECT_THROW(bus->RegisterDestinationName(std::string("a\0b", 3)), Exception);
  EXPECT_THROW(bus->RegisterDestinationName(std::string(256, 'a')), Exception);
  EXPECT_NO_THROW(bus->RegisterDestinationName(std::string(255, 'a')));
}

TEST_F(DirectTransportDestinations, SaysWhenAPathIsTooLongForASocket) {
  auto bus = NewBus();
  EXPECT_THROW(bus->StartServer(std::string(120, 'a')), Exception);
  EXPECT_FALSE(bus->IsRunning());
}

TEST_F(DirectTransportDestinations, MakesTheDirectoryAndASocketForEverybody) {
  platform_.Set("MsgBus", "runtime_dir", platform_.RuntimeDir() + "/deep/er");
  const mode_t before = umask(077);
  const auto server = EchoServer();
  umask(before);
  struct stat status {};
  ASSERT_EQ(stat((platform_.RuntimeDir() + "/deep/er").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0755u);
  ASSERT_EQ(stat((platform_.RuntimeDir() + "/deep/er/" + kDestination).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0666u);
}

TEST_F(DirectTransportDestinations, GivesTheSocketTheConfiguredMode) {
  platform_.Set("MsgBus", "socket_mode", "0600");
  const auto server = EchoServer();
  struct stat status {};
  ASSERT_EQ(stat(SocketPath().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST_F(DirectTransportDestinations, RemovesItsSocketWhenItStops) {
  auto server = EchoServer();
  EXPECT_TRUE(std::filesystem::exists(SocketPath()));
  server->StopServer();
  EXPECT_FALSE(std::filesystem::exists(SocketPath()));
  server->StartServer();
  server.reset();
  EXPECT_FALSE(std::filesystem::exists(SocketPath()));
}

TEST_F(DirectTransportDestinations, TakesOverWhatADeadServerLeft) {
  {
    const HostileServer dead(SocketPath(), [](RawSocket&) {});
  }
  ASSERT_TRUE(std::filesystem::exists(SocketPath()));
  const auto server = EchoServer();
  EXPECT_FALSE(Call(*NewBus(), Request("Echo"))->IsError());
}

TEST_F(DirectTransportDestinations, NeverTakesADestinationFromALiveServer) {
  const auto server = EchoServer();
  auto rival = NewBus();
  EXPECT_THROW(rival->StartServer(kDestination), Exception);
  EXPECT_FALSE(rival->IsRunning());
  rival->StartServer();
  EXPECT_THROW(rival->RegisterDestinationName(kDestination), Exception);
  EXPECT_FALSE(Call(*NewBus(), Request("Echo"))->IsError());
}

TEST_F(DirectTransportDestinations, StartsAllDestinationsOrNone) {
  const auto server = EchoServer();
  auto rival = NewBus();
  rival->RegisterDestinationName("a.First");
  rival->RegisterDestinationName(kDestination);
  EXPECT_THROW(rival->StartServer(), Exception);
  EXPECT_FALSE(std::filesystem::exists(platform_.RuntimeDir() + "/a.First"));
}

TEST_F(DirectTransportDestinations, RefusesAWrongConfiguration) {
  platform_.Set("MsgBus", "transport", "pigeon");
  EXPECT_THROW(MsgBus(), Exception);
  platform_.Set("MsgBus", "transport", "direct");
  platform_.Set("MsgBus", "service_user", "no such user");
  EXPECT_THROW(MsgBus(), Exception);
  platform_.Set("MsgBus", "service_user", "0");
  platform_.Set("MsgBus", "socket_mode", "rw");
  EXPECT_THROW(MsgBus(), Exception);
  platform_.Set("MsgBus", "socket_mode", "0660");
  EXPECT_NO_THROW(MsgBus());
}

}  // namespace
}  // namespace tevra::msgbus
