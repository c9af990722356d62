#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/daemon_client.h"
#include "support/daemon_process.h"
#include "support/random_seed.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/osa/exception.h"

namespace {

using support::DaemonProcess;
using support::Finished;
using tevra::interfaces::ISecurityProvider;

using support::Accounts;
using Client = support::DaemonClient;

// One change of a pair of accounts, in one request: both of the pair or neither.
struct Change {
  enum Kind { kAdd, kRegroup, kDelete } kind;
  int pair;
};

std::string First(int pair) {
  return "first" + std::to_string(pair);
}
std::string Second(int pair) {
  return "second" + std::to_string(pair);
}

std::string PairDocument(int pair, const char* password, int group) {
  std::string text = "{\"Users\":[";
  for (const std::string& name : {First(pair), Second(pair)}) {
    text += (text.back() == '[' ? "" : ",") + std::string("{\"Name\":\"") + name + "\"," +
            password + "\"Group\":" + std::to_string(group) + "}";
  }
  return text + "]}";
}

void Perform(const Change& change, ISecurityProvider& provider) {
  int code = -1;
  switch (change.kind) {
    case Change::kAdd:
      code = provider.AddUsers(PairDocument(change.pair, "\"Password\":\"secret\",", 8));
      break;
    case Change::kRegroup:
      code = provider.ModifyUsers(PairDocument(change.pair, "", 4));
      break;
    case Change::kDelete:
      code = provider.DeleteUsers({First(change.pair), Second(change.pair)});
      break;
  }
  ASSERT_EQ(code, 0) << "change " << change.kind << " of pair " << change.pair;
}

void Apply(const Change& change, Accounts& accounts) {
  for (const std::string& name : {First(change.pair), Second(change.pair)}) {
    if (change.kind == Change::kDelete) {
      accounts.erase(name);
    } else {
      accounts[name] = change.kind == Change::kAdd ? 8 : 4;
    }
  }
}

// 200 changes over 40 pairs: every pair is added, regrouped, deleted, added again, regrouped again.
std::vector<Change> TwoHundredChanges() {
  std::vector<Change> changes;
  constexpr Change::Kind kLife[] = {Change::kAdd, Change::kRegroup, Change::kDelete, Change::kAdd,
                                    Change::kRegroup};
  for (int step = 0; step < 44; ++step) {
    for (int pair = 0; pair < 40; ++pair) {
      // Pairs are at different points of their life at any moment.
      const int point = step - pair % 5;
      if (point >= 0 && point < 5 && static_cast<int>(changes.size()) < 200) {
        changes.push_back({kLife[point], pair});
      }
    }
  }
  return changes;
}

TEST(KilledDaemon, LosesNoAcknowledgedChangeAndLeavesNoHalfOfOne) {
  DaemonProcess device;
  ASSERT_EQ(device.LaunchAndAwaitReady(), DaemonProcess::Start::kReady) << device.Log();
  Client client(device);
  ASSERT_EQ(
      client->AddUsers("{\"Users\":[{\"Name\":\"root\",\"Password\":\"secret\",\"Group\":1}]}"), 0);
  std::mt19937 random = support::SeededGenerator();
  std::uniform_int_distribution<int> instant(0, 60000);

  const std::vector<Change> changes = TwoHundredChanges();
  ASSERT_EQ(changes.size(), 200u);
  Accounts acknowledged = {{"root", 1}};
  size_t next = 0;
  int kills = 0;
  while (next < changes.size()) {
    std::thread killer([&device, wait = std::chrono::microseconds(instant(random))] {
      device.Running().EndsWithin(wait);
      device.Running().Signal(SIGKILL);
    });
    bool lost = false;
    while (next < changes.size() && !lost) {
      try {
        Perform(changes[next], *client);
        Apply(changes[next++], acknowledged);
      } catch (const tevra::osa::Exception&) {
        lost = true;
      }
    }
    killer.join();
    EXPECT_EQ(device.Finish().signal, SIGKILL);
    ++kills;
    ASSERT_EQ(device.LaunchAndAwaitReady(), DaemonProcess::Start::kReady) << device.Log();
    const Accounts stored = client.Listed();
    Accounts with_pending = acknowledged;
    if (lost) Apply(changes[next], with_pending);
    if (stored != acknowledged) {
      // The change under way may have been made without an answer; then it is there whole.
      ASSERT_EQ(stored, with_pending) << "after " << next << " changes";
      acknowledged = with_pending;
      ++next;
    }
  }
  std::cout << kills << " kills during " << changes.size() << " changes\n";
  EXPECT_EQ(device.CtlWithSecret("secret", {"login", "second7"}).exit_code, 0);
}

TEST(KilledDaemon, ForgetsEverySessionAndKeepsTheRest) {
  DaemonProcess device;
  ASSERT_EQ(device.LaunchAndAwaitReady(), DaemonProcess::Start::kReady);
  ASSERT_EQ(device.CtlWithSecret("secret", {"user", "add", "anna", "-g", "admins"}).exit_code, 0);
  const std::string token = device.CtlWithSecret("secret", {"login", "anna"}).out.substr(0, 8);
  const std::string id =
      device.CtlWithSecret("phrase", {"passphrase", "add", "a"}).out.substr(0, 37);
  ASSERT_EQ(device.Ctl({"whoami", token}).exit_code, 0);
  EXPECT_EQ(device.Stop(SIGKILL).signal, SIGKILL);
  ASSERT_EQ(device.LaunchAndAwaitReady(), DaemonProcess::Start::kReady);
  EXPECT_EQ(device.Ctl({"whoami", token}).exit_code, 1);
  EXPECT_EQ(device.Ctl({"authorize", token, "/inject.cgi"}).exit_code, 1);
  EXPECT_EQ(device.Ctl({"passphrase", "show", id}).out, "phrase\n");
  EXPECT_EQ(device.CtlWithSecret("secret", {"login", "anna"}).exit_code, 0);
}

// No file of the daemon may grow past `bytes`: the disk is full.
void LimitFiles(pid_t pid, rlim_t bytes) {
  const rlimit limit = {bytes, RLIM_INFINITY};
  ASSERT_EQ(prlimit(pid, RLIMIT_FSIZE, &limit, nullptr), 0);
}

std::string OneAccount(int number) {
  return "{\"Users\":[{\"Name\":\"user" + std::to_string(number) +
         "\",\"Password\":\"secret\",\"Group\":8}]}";
}

TEST(FullDisk, FailsTheChangeAndLosesNothing) {
  DaemonProcess device;
  support::ProgramOptions options;
  options.ignore_file_size_signal = true;
  ASSERT_EQ(device.LaunchAndAwaitReady(options), DaemonProcess::Start::kReady) << device.Log();
  Client client(device);
  ASSERT_EQ(
      client->AddUsers("{\"Users\":[{\"Name\":\"root\",\"Password\":\"secret\",\"Group\":1}]}"), 0);
  LimitFiles(device.Running().Pid(),
             std::filesystem::file_size(device.Database() + "-wal") + 100000);
  Accounts acknowledged = {{"root", 1}};
  bool refused = false;
  for (int i = 0; i < 1000 && !refused; ++i) {
    try {
      ASSERT_EQ(client->AddUsers(OneAccount(i)), 0);
      acknowledged["user" + std::to_string(i)] = 8;
    } catch (const tevra::osa::Exception&) {
      refused = true;
    }
  }
  ASSERT_TRUE(refused) << "the limit was never met";
  EXPECT_EQ(client.Listed(), acknowledged) << "what was refused is not there";
  EXPECT_EQ(device.CtlWithSecret("secret", {"login", "root"}).exit_code, 0) << "it goes on serving";
  EXPECT_NE(device.Log().find(device.Database()), std::string::npos) << device.Log();

  LimitFiles(device.Running().Pid(), RLIM_INFINITY);
  EXPECT_EQ(client->AddUsers(OneAccount(5000)), 0) << "there is room again";
  acknowledged["user5000"] = 8;
  EXPECT_EQ(device.Stop(SIGKILL).signal, SIGKILL);
  ASSERT_EQ(device.LaunchAndAwaitReady(), DaemonProcess::Start::kReady) << device.Log();
  EXPECT_EQ(client.Listed(), acknowledged);
}

}  // namespace
