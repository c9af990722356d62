#include "vigila/server/key_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "support/temp_dir.h"
#include "support/text_thrown_by.h"
#include "tevra/osa/exception.h"

namespace {

bool plain_renames_only = false;

}  // namespace

// Stands before the C library's function.
extern "C" int renameat2(int from_dir, const char* from, int to_dir, const char* to,
                         unsigned flags) noexcept {
  if (plain_renames_only && flags != 0) {
    errno = EINVAL;
    return -1;
  }
  return static_cast<int>(syscall(SYS_renameat2, from_dir, from, to_dir, to, flags));
}

namespace vigila::server {
namespace {

using support::TextThrownBy;
using tevra::core::SecretText;

constexpr char kBytes[] = "the bytes of a key";

class KeyFileTest : public testing::Test {
 protected:
  bool Make() const { return KeyFile::Make(path_, SecretText(std::string(kBytes))); }
  static std::unique_ptr<SecretText> Read(const std::string& path,
                                          KeyFile::Kind kind = KeyFile::Kind::kOwnFile) {
    return KeyFile::Read(path, kind, 4, 100);
  }
  static std::string ErrorOfReading(const std::string& path,
                                    KeyFile::Kind kind = KeyFile::Kind::kOwnFile) {
    return TextThrownBy([&] { Read(path, kind); });
  }
  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.Path())) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  support::TempDir dir_;
  const std::string path_ = dir_.File("first.key");
};

TEST_F(KeyFileTest, IsForItsOwnUserOnlyAndAlone) {
  EXPECT_TRUE(KeyFile::CanBeMade(path_));
  EXPECT_TRUE(Make());
  struct stat status {};
  ASSERT_EQ(0, stat(path_.c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 07777);
  EXPECT_EQ(kBytes, Read(path_)->View());
  EXPECT_EQ(std::vector<std::string>{"first.key"}, Files());
}

TEST_F(KeyFileTest, IsNeverReplaced) {
  dir_.Write("first.key", "another");
  EXPECT_FALSE(KeyFile::CanBeMade(path_));
  EXPECT_FALSE(Make());
  EXPECT_EQ("another", dir_.Read("first.key"));
  EXPECT_EQ(std::vector<std::string>{"first.key"}, Files());
}

TEST_F(KeyFileTest, RemovesWhatAKilledProcessLeftAndNothingElse) {
  const std::vector<std::string> others = {"first.key.backup", "first.key.unfinished-long-one",
                                           "other.key.unfinished-abcdef"};
  for (const std::string& name : others) dir_.Write(name, "x");
  dir_.Write("first.key.unfinished-abcdef", "half a key");
  dir_.Write("first.key.unfinished-000000", "");
  const std::string busy = dir_.Write("first.key.unfinished-ghijkl", "somebody writes this");
  const int lock = open(busy.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(lock, LOCK_EX), 0);
  EXPECT_TRUE(Make());
  std::vector<std::string> left = others;
  left.insert(left.end(), {"first.key", "first.key.unfinished-ghijkl"});
  std::sort(left.begin(), left.end());
  EXPECT_EQ(Files(), left);
  close(lock);
}

TEST_F(KeyFileTest, IsMadeWhereTheFileSystemRenamesPlainlyOnly) {
  plain_renames_only = true;
  EXPECT_TRUE(Make());
  EXPECT_FALSE(Make());
  plain_renames_only = false;
  EXPECT_EQ(Files(), std::vector<std::string>{"first.key"});
  EXPECT_EQ(kBytes, Read(path_)->View());
}

TEST_F(KeyFileTest, LeavesNothingThatTheDiskDoesNotTake) {
  const auto previous_handler = signal(SIGXFSZ, SIG_IGN);
  rlimit previous = {};
  getrlimit(RLIMIT_FSIZE, &previous);
  const rlimit full = {10, previous.rlim_max};
  setrlimit(RLIMIT_FSIZE, &full);
  const std::string error = TextThrownBy([this] { Make(); });
  setrlimit(RLIMIT_FSIZE, &previous);
  signal(SIGXFSZ, previous_handler);
  EXPECT_EQ(error, "key file " + path_ + ": cannot be written: File too large");
  EXPECT_TRUE(Files().empty());
}

TEST_F(KeyFileTest, IsOneWhenSeveralMakeItAtOnce) {
  for (int round = 0; round < 20; ++round) {
    std::atomic<int> made = 0;
    std::vector<std::thread> makers;
    for (int i = 0; i < 4; ++i) {
      makers.emplace_back([&] {
        if (Make()) ++made;
      });
    }
    for (std::thread& maker : makers) maker.join();
    EXPECT_EQ(made, 1);
    EXPECT_EQ(Files(), std::vector<std::string>{"first.key"});
    std::filesystem::remove(path_);
  }
}

TEST_F(KeyFileTest, NamesTheDirectoryThatTakesNoFile) {
  const std::string path = dir_.File("no/such/directory/the.key");
  EXPECT_EQ("key file " + path + ": cannot be made: No such file or directory",
            TextThrownBy([&] { KeyFile::CanBeMade(path); }));
}

TEST_F(KeyFileTest, IsNothingWhereThereIsNoFile) {
  EXPECT_EQ(nullptr, Read(path_));
}

TEST_F(KeyFileTest, IsReadOnlyWhenNoOneElseCanReadOrWriteIt) {
  Make();
  for (const mode_t mode : {0640u, 0604u, 0620u, 0602u, 0610u, 0644u, 0666u}) {
    ASSERT_EQ(0, chmod(path_.c_str(), mode));
    EXPECT_TRUE(ErrorOfReading(path_).starts_with("key file " + path_ + ": open to others"));
  }
  ASSERT_EQ(0, chmod(path_.c_str(), 0400));
  EXPECT_EQ(kBytes, Read(path_)->View());
}

TEST_F(KeyFileTest, MayShowItsGroupWhenItIsACredential) {
  Make();
  ASSERT_EQ(0, chmod(path_.c_str(), 0440));
  EXPECT_EQ(kBytes, Read(path_, KeyFile::Kind::kCredential)->View());
  ASSERT_EQ(0, chmod(path_.c_str(), 0444));
  EXPECT_EQ("key file " + path_ + ": open to others (mode 0444), must be 0600",
            ErrorOfReading(path_, KeyFile::Kind::kCredential));
}

TEST_F(KeyFileTest, IsNotTakenFromAnotherUser) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  Make();
  ASSERT_EQ(0, chown(path_.c_str(), 12345, 12345));
  EXPECT_EQ("key file " + path_ + ": owned by another user (uid 12345)", ErrorOfReading(path_));
}

TEST_F(KeyFileTest, IsAFileAndNothingElse) {
  EXPECT_EQ("key file " + dir_.Path() + ": not a regular file", ErrorOfReading(dir_.Path()));
  const std::string pipe = dir_.File("pipe");
  ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
  EXPECT_EQ("key file " + pipe + ": not a regular file", ErrorOfReading(pipe));
}

TEST_F(KeyFileTest, HasAKeysSize) {
  for (const size_t size : {0u, 3u, 101u}) {
    dir_.Write("first.key", std::string(size, 'x'));
    ASSERT_EQ(0, chmod(path_.c_str(), 0600));
    EXPECT_EQ(
        "key file " + path_ + ": damaged, " + std::to_string(size) + " bytes is no key's size",
        ErrorOfReading(path_));
  }
}

}  // namespace
}  // namespace vigila::server
