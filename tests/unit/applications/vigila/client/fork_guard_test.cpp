#include "vigila/client/fork_guard.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

namespace vigila::client {
namespace {

using tevra::osa::Mutex;
using tevra::osa::MutexAutoLock;

int StatusOf(pid_t child) {
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return status;
}

TEST(ForkGuard, CountsChildren) {
  Mutex mutex;
  const ForkGuard guard(mutex);
  const uint64_t before = ForkGuard::Generation();
  const pid_t child = fork();
  if (child == 0) {
    const pid_t grandchild = fork();
    if (grandchild == 0) _exit(ForkGuard::Generation() == before + 2 ? 0 : 1);
    _exit(ForkGuard::Generation() == before + 1 && StatusOf(grandchild) == 0 ? 0 : 1);
  }
  EXPECT_EQ(StatusOf(child), 0);
  EXPECT_EQ(ForkGuard::Generation(), before);
}

TEST(ForkGuard, GivesAChildAFreeMutexWhateverOtherThreadsDo) {
  Mutex mutex("guarded");
  const ForkGuard guard(mutex);
  std::atomic<bool> done{false};
  std::thread busy([&] {
    while (!done) MutexAutoLock lock(mutex);
  });
  int failures = 0;
  for (int i = 0; i < 50; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      try {
        MutexAutoLock lock(mutex, 2000);
        _exit(0);
      } catch (...) {
        _exit(1);
      }
    }
    failures += StatusOf(child) != 0;
  }
  done = true;
  busy.join();
  EXPECT_EQ(failures, 0);
}

TEST(ForkGuard, LetsGoOfAMutexThatEnds) {
  {
    Mutex mutex;
    const ForkGuard guard(mutex);
  }
  const pid_t child = fork();
  if (child == 0) _exit(0);
  EXPECT_EQ(StatusOf(child), 0);
}

}  // namespace
}  // namespace vigila::client
