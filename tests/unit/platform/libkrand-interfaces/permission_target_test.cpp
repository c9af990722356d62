#include "krand/interfaces/permission_target.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <map>
#include <stdexcept>
#include <thread>
#include <vector>

#include "krand/interfaces/permission_initiator.h"
#include "support/capturing_log.h"
#include "support/platform_fixture.h"
#include "support/virtual_slot.h"
#include "tevra/interfaces/access_denied.h"
#include "tevra/msgbus/msg_bus.h"
#include "tevra/osa/exception.h"

namespace {

using support::CapturingLog;
using tevra::msgbus::MsgBusMsg;

// Rules in a map; "/fixed" cannot be changed. Counts how many calls are in it at once.
class Target final : public KrandApiPermissionTargetImplBase {
 public:
  explicit Target(void* context = nullptr) : KrandApiPermissionTargetImplBase(context) {
    rules["/fixed"] = "true";
    rules["/jpeg*"] = "@admins";
  }

  bool isRunnable() override { return runnable; }
  int getAccessRule(const char* path, char** rule) override {
    const Inside inside(*this);
    if (on_get) on_get();
    const auto found = rules.find(path);
    if (found == rules.end()) return 1;
    *rule = strdup(found->second.c_str());
    return 0;
  }
  int setAccessRule(const char* path, const char* rule) override {
    const Inside inside(*this);
    if (rules.count(path) == 0 || strcmp(path, "/fixed") == 0) return 1;
    rules[path] = rule;
    return 0;
  }

  bool runnable = true;
  std::function<void()> on_get;
  std::map<std::string, std::string> rules;
  std::atomic<int> calls{0};
  std::atomic<int> most_at_once{0};

 private:
  struct Inside {
    explicit Inside(Target& target) : owner(target) {
      ++owner.calls;
      const int now = ++owner.at_once_;
      if (now > owner.most_at_once) owner.most_at_once = now;
    }
    ~Inside() { --owner.at_once_; }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;
    Target& owner;
  };
  std::atomic<int> at_once_{0};
};

class PermissionTarget : public testing::Test {
 protected:
  void Serve() {
    runner_ = std::make_unique<KrandApiPermissionTargetRun>("permission", nullptr, target_);
  }

  support::PlatformFixture platform_;
  CapturingLog log_;
  boost::shared_ptr<Target> target_ = boost::make_shared<Target>();
  std::unique_ptr<KrandApiPermissionTargetRun> runner_;
};

TEST_F(PermissionTarget, AnswersAndChangesRules) {
  Serve();
  KrandApiPermissionInitiator initiator("permission");
  EXPECT_EQ(initiator.GetAccessRule("/jpeg*"), "@admins");
  EXPECT_TRUE(initiator.SetAccessRule("/jpeg*", "true"));
  EXPECT_EQ(initiator.GetAccessRule("/jpeg*"), "true");
  EXPECT_EQ(target_->rules["/jpeg*"], "true");
}

TEST_F(PermissionTarget, AnswersUnknownPathsAndRefusedChangesWithoutAnError) {
  Serve();
  KrandApiPermissionInitiator initiator("permission");
  EXPECT_EQ(initiator.GetAccessRule("/unknown"), std::nullopt);
  EXPECT_FALSE(initiator.SetAccessRule("/unknown", "true"));
  EXPECT_FALSE(initiator.SetAccessRule("/fixed", "false"));
  EXPECT_EQ(target_->rules["/fixed"], "true");
}

TEST_F(PermissionTarget, CarriesEmptyLongAndBinaryTextsWhole) {
  Serve();
  KrandApiPermissionInitiator initiator("permission");
  std::string bytes;
  for (int c = 1; c < 256; ++c) bytes.push_back(static_cast<char>(c));
  for (const std::string& rule : {std::string(), bytes, std::string(1u << 20, 'x')}) {
    EXPECT_TRUE(initiator.SetAccessRule("/jpeg*", rule));
    EXPECT_EQ(initiator.GetAccessRule("/jpeg*"), rule);
  }
}

TEST_F(PermissionTarget, IsNotAskedAboutTextsThatHideBytesBehindAZeroByte) {
  Serve();
  KrandApiPermissionInitiator initiator("permission");
  EXPECT_EQ(initiator.GetAccessRule(std::string("/jpeg*\0x", 8)), std::nullopt);
  EXPECT_FALSE(initiator.SetAccessRule(std::string("/jpeg*\0", 7), "true"));
  EXPECT_FALSE(initiator.SetAccessRule("/jpeg*", std::string("true\0false", 10)));
  EXPECT_EQ(target_->calls, 0);
}

TEST_F(PermissionTarget, IsServedOneRequestAtATime) {
  Serve();
  const auto ask = [] {
    KrandApiPermissionInitiator initiator("permission");
    for (int i = 0; i < 25; ++i) EXPECT_EQ(initiator.GetAccessRule("/jpeg*"), "@admins");
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back(ask);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(target_->calls, 100);
  EXPECT_EQ(target_->most_at_once, 1);
}

TEST_F(PermissionTarget, ThatThrowsGivesTheCallerItsTextAndServesOn) {
  Serve();
  target_->on_get = [] { throw std::runtime_error("no rules today"); };
  KrandApiPermissionInitiator initiator("permission");
  try {
    initiator.GetAccessRule("/jpeg*");
    FAIL() << "nothing was thrown";
  } catch (const tevra::osa::Exception& error) {
    EXPECT_NE(std::string(error.what()).find("no rules today"), std::string::npos) << error.what();
  }
  target_->on_get = nullptr;
  EXPECT_EQ(initiator.GetAccessRule("/jpeg*"), "@admins");
}

TEST_F(PermissionTarget, AnswersMalformedRequestsWithAnError) {
  Serve();
  tevra::msgbus::MsgBus bus;
  const auto error_of = [&bus](MsgBusMsg message) {
    std::unique_ptr<MsgBusMsg> reply;
    bus.SendMsgWaitForReply(message, reply, -1);
    return reply->IsError() ? reply->ErrorName() : std::string();
  };
  const char* const interface = "krand.interfaces.PermissionTarget";
  const char* const destination = "krand.target.permission";
  const std::string wrong = "org.freedesktop.DBus.Error.InvalidArgs";
  EXPECT_EQ(error_of(MsgBusMsg(interface, "getAccessRule", destination)), wrong);
  EXPECT_EQ(error_of(MsgBusMsg(interface, "getAccessRule", destination).Append(int32_t{1})), wrong);
  EXPECT_EQ(error_of(MsgBusMsg(interface, "getAccessRule", destination)
                         .Append(std::string("a"))
                         .Append(std::string("b"))),
            wrong);
  EXPECT_EQ(error_of(MsgBusMsg(interface, "setAccessRule", destination).Append(std::string("a"))),
            wrong);
  EXPECT_EQ(error_of(MsgBusMsg(interface, "dropAccessRule", destination)),
            "org.freedesktop.DBus.Error.UnknownMethod");
  EXPECT_EQ(error_of(MsgBusMsg(interface, "getAccessRule", destination).Append(std::string("a"))),
            "");
}

TEST_F(PermissionTarget, ThatIsNotRunnableIsNotServed) {
  target_->runnable = false;
  Serve();
  EXPECT_EQ(log_.TextsOf("krand"),
            std::vector<std::string>{"Permission target permission is not runnable and is not "
                                     "served"});
  KrandApiPermissionInitiator initiator("permission");
  EXPECT_THROW(initiator.GetAccessRule("/jpeg*"), tevra::osa::Exception);
}

TEST_F(PermissionTarget, MustBeThere) {
  EXPECT_THROW(KrandApiPermissionTargetRun("permission", nullptr, nullptr), tevra::osa::Exception);
}

TEST_F(PermissionTarget, KeepsItsNameFromASecondOne) {
  Serve();
  EXPECT_THROW(KrandApiPermissionTargetRun("permission", nullptr, boost::make_shared<Target>()),
               tevra::osa::Exception);
  KrandApiPermissionInitiator initiator("permission");
  EXPECT_EQ(initiator.GetAccessRule("/jpeg*"), "@admins");
  EXPECT_EQ(target_->calls, 1);
}

TEST_F(PermissionTarget, RefusesNamesThatAreNoBusName) {
  for (const char* name : {"a/b", "../a", "a b"}) {
    EXPECT_THROW(KrandApiPermissionTargetRun(name, nullptr, target_), tevra::osa::Exception)
        << name;
  }
}

TEST_F(PermissionTarget, CanBeServedAgainUnderTheSameName) {
  KrandApiPermissionInitiator initiator("permission");
  for (int i = 0; i < 3; ++i) {
    EXPECT_THROW(initiator.GetAccessRule("/jpeg*"), tevra::osa::Exception);
    Serve();
    EXPECT_EQ(initiator.GetAccessRule("/jpeg*"), "@admins");
    runner_.reset();
  }
}

TEST_F(PermissionTarget, IsNotLeftBeforeARequestUnderWayIsDone) {
  Serve();
  std::promise<void> entered;
  std::promise<void> leaving;
  std::atomic<bool> finished{false};
  target_->on_get = [&] {
    entered.set_value();
    leaving.get_future().wait();
    finished = true;
  };
  std::thread caller([] {
    KrandApiPermissionInitiator initiator("permission");
    try {
      initiator.GetAccessRule("/jpeg*");
    } catch (const tevra::osa::Exception&) {
      // The answer may be lost with the server.
    }
  });
  entered.get_future().wait();
  krand_core_set_trace_hook(
      [](const char* call, void* data) {
        if (strcmp(call, "~KrandApiPermissionTargetRun") == 0) {
          static_cast<std::promise<void>*>(data)->set_value();
        }
      },
      &leaving);
  runner_.reset();
  EXPECT_TRUE(finished);
  krand_core_set_trace_hook(nullptr, nullptr);
  caller.join();
}

TEST_F(PermissionTarget, LogsThroughItsContext) {
  void* context = nullptr;
  ASSERT_EQ(krand_core_logging_init("CONTEXT", &context), KRAND_CORE_OK);
  Target target(context);
  target.log(KRAND_CORE_LOG_WARNING, "%s %d", "line", 1);
  EXPECT_EQ(log_.Lines(),
            (std::vector<support::LogLine>{{tevra::core::Logger::kWarning, "CONTEXT", "line 1"}}));
  EXPECT_EQ(krand_core_logging_deinit(context), KRAND_CORE_OK);
}

#if defined(SUPPORT_HAS_VIRTUAL_SLOTS)
TEST(PermissionTargetContract, KeepsTheOrderOfItsOperations) {
  using Base = KrandApiPermissionTargetImplBase;
  const size_t slots[] = {
      support::VirtualSlot(&Base::isRunnable), support::VirtualSlot(&Base::getAccessRule),
      support::VirtualSlot(&Base::setAccessRule), support::VirtualSlot(&Base::log)};
  size_t expected = 2;  // after the two of the destructor
  for (const size_t slot : slots) EXPECT_EQ(slot, expected++);
}
#endif

// What an ordinary user gets to hear.
enum Answer { kGranted = 0, kDenied = 1, kFailed = 2 };

template <typename Call>
int AnswerTo(Call call) {
  try {
    call();
    return kGranted;
  } catch (const tevra::interfaces::AccessDenied&) {
    return kDenied;
  } catch (const std::exception&) {
    return kFailed;
  }
}

// Lets a process of user 65534, group `group`, call once the target is served.
class OtherUser final {
 public:
  explicit OtherUser(gid_t group) {
    EXPECT_EQ(pipe(go_), 0);
    child_ = fork();
    if (child_ != 0) return;
    char byte = 0;
    if (read(go_[0], &byte, 1) != 1) _exit(99);
    if (setgroups(0, nullptr) != 0 || setresgid(group, group, group) != 0 ||
        setresuid(65534, 65534, 65534) != 0) {
      _exit(98);
    }
    KrandApiPermissionInitiator initiator("permission");
    const int read_answer = AnswerTo([&] { initiator.GetAccessRule("/jpeg*"); });
    const int write_answer = AnswerTo([&] { initiator.SetAccessRule("/jpeg*", "true"); });
    _exit(read_answer * 10 + write_answer);
  }
  // Ten times the answer to reading, plus the answer to changing.
  int Answers() {
    EXPECT_EQ(write(go_[1], "g", 1), 1);
    int status = 0;
    waitpid(child_, &status, 0);
    close(go_[0]);
    close(go_[1]);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000;
  }

 private:
  int go_[2];
  pid_t child_;
};

class PermissionTargetOfOthers : public PermissionTarget {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
    ASSERT_EQ(chmod(platform_.Dir().Path().c_str(), 0755), 0);
  }
};

TEST_F(PermissionTargetOfOthers, RefusesCallersWithoutARole) {
  OtherUser user(65534);
  Serve();
  EXPECT_EQ(user.Answers(), kDenied * 10 + kDenied);
  EXPECT_EQ(target_->calls, 0);
  EXPECT_EQ(log_.TextsOf("MsgBus", CapturingLog::Level::kNotice),
            (std::vector<std::string>{
                "krand.target.permission: a connection of user 65534 refused: the caller is in "
                "none of the groups that hold the role 'service' or 'admin'"}));
}

TEST_F(PermissionTargetOfOthers, LetsTheServiceRoleReadOnly) {
  platform_.Set("Access", "service_groups", "65533");
  OtherUser user(65533);
  Serve();
  EXPECT_EQ(user.Answers(), kGranted * 10 + kDenied);
  EXPECT_EQ(target_->rules["/jpeg*"], "@admins");
}

TEST_F(PermissionTargetOfOthers, LetsBothRolesReadAndChange) {
  platform_.Set("Access", "service_groups", "65533");
  platform_.Set("Access", "admin_groups", "65533");
  OtherUser user(65533);
  Serve();
  EXPECT_EQ(user.Answers(), kGranted * 10 + kGranted);
  runner_.reset();  // the change came from elsewhere; its thread must be over before we look
  EXPECT_EQ(target_->rules["/jpeg*"], "true");
}

}  // namespace
