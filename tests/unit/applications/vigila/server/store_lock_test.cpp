#include "vigila/server/store_lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>

#include "support/temp_dir.h"
#include "vigila/server/start_failure.h"

namespace vigila::server {
namespace {

class StoresLock : public testing::Test {
 protected:
  // What a server is told that wants the store.
  static void ExpectRefused(const std::string& store, StartFailure::Cause cause,
                            const std::string& text) {
    try {
      const StoreLock lock(store);
      ADD_FAILURE() << store << " was given away";
    } catch (const StartFailure& e) {
      EXPECT_EQ(e.cause(), cause);
      EXPECT_EQ(e.what(), text);
    }
  }

  const support::TempDir dir;
  const std::string store = dir.File("vigila.db");
};

TEST_F(StoresLock, IsGivenToOneAtATime) {
  auto first = std::make_unique<StoreLock>(store);
  ExpectRefused(store, StartFailure::kInUse, store + " is held by another daemon");
  ExpectRefused(store, StartFailure::kInUse, store + " is held by another daemon");
  first.reset();
  const StoreLock second(store);
  ExpectRefused(store, StartFailure::kInUse, store + " is held by another daemon");
}

TEST_F(StoresLock, IsAFileThatOnlyTheDaemonMayReadAndThatStays) {
  { const StoreLock lock(store); }
  struct stat status = {};
  ASSERT_EQ(lstat((store + ".lock").c_str(), &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
  EXPECT_EQ(status.st_mode & 07777u, 0600u);
  EXPECT_FALSE(std::filesystem::exists(store));
  const StoreLock lock(store);
  struct stat again = {};
  ASSERT_EQ(lstat((store + ".lock").c_str(), &again), 0);
  EXPECT_EQ(again.st_ino, status.st_ino);
}

TEST_F(StoresLock, IsNotForThoseWhoMayOnlyReadTheDirectory) {
  const int directory = open(dir.Path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(flock(directory, LOCK_EX | LOCK_NB), 0);
  { const StoreLock lock(store); }
  close(directory);
}

TEST_F(StoresLock, IsNotKeptByACopyThatForkMade) {
  auto lock = std::make_unique<StoreLock>(store);
  const pid_t child = fork();
  if (child == 0) {
    for (;;) pause();
  }
  lock.reset();
  EXPECT_NO_THROW(StoreLock next(store));
  ASSERT_EQ(kill(child, SIGKILL), 0);
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
}

TEST_F(StoresLock, IsNotGivenUpByAChildThatEnds) {
  auto lock = std::make_unique<StoreLock>(store);
  const pid_t child = fork();
  if (child == 0) {
    lock.reset();
    _exit(0);
  }
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  ExpectRefused(store, StartFailure::kInUse, store + " is held by another daemon");
}

TEST_F(StoresLock, GoesWithAProcessThatIsKilled) {
  int locked[2];
  ASSERT_EQ(pipe2(locked, O_CLOEXEC), 0);
  const pid_t child = fork();
  if (child == 0) {
    const StoreLock lock(store);
    static_cast<void>(!write(locked[1], "x", 1));
    for (;;) pause();
  }
  char byte;
  ASSERT_EQ(read(locked[0], &byte, 1), 1);
  ExpectRefused(store, StartFailure::kInUse, store + " is held by another daemon");
  ASSERT_EQ(kill(child, SIGKILL), 0);
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  const StoreLock lock(store);
  close(locked[0]);
  close(locked[1]);
}

TEST_F(StoresLock, IsNotThatOfAnotherStore) {
  const support::TempDir other;
  const StoreLock lock(store);
  const StoreLock beside(dir.File("other.db"));
  const StoreLock elsewhere(other.File("vigila.db"));
}

TEST_F(StoresLock, IsNoneWhereTheSettingsAreInNoFile) {
  const StoreLock lock("");
  const StoreLock another("");
}

TEST_F(StoresLock, SaysWhyThereCanBeNone) {
  const std::string nowhere = dir.File("nowhere/vigila.db");
  ExpectRefused(nowhere, StartFailure::kStore,
                nowhere + ".lock cannot be locked: No such file or directory");
  const std::string in_a_file = dir.Write("file", "") + "/vigila.db";
  ExpectRefused(in_a_file, StartFailure::kStore,
                in_a_file + ".lock cannot be locked: Not a directory");
  std::filesystem::create_symlink(dir.File("file"), store + ".lock");
  ExpectRefused(store, StartFailure::kStore,
                store + ".lock cannot be locked: Too many levels of symbolic links");
}

}  // namespace
}  // namespace vigila::server
