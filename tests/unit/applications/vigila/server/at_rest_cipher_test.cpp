#include "vigila/server/at_rest_cipher.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "krand/base64/base64.h"
#include "support/at_rest_key_fixture.h"
#include "support/capturing_log.h"
#include "support/library_without_rsa.h"
#include "support/platform_fixture.h"
#include "support/temp_dir.h"
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

constexpr size_t kKeyBytes = AtRestCipher::kMinimumBits / 8;
constexpr size_t kNumberBytes = AtRestCipher::kMinimumBits / 8;
constexpr size_t kHeaderBytes = 32;
// What OAEP with SHA-256 leaves of a block.
constexpr size_t kClearBlock = kKeyBytes - 2 * 32 - 2;

class AtRestCipherTest : public testing::Test {
 protected:
  AtRestCipherTest() { unsetenv("CREDENTIALS_DIRECTORY"); }
  ~AtRestCipherTest() override { unsetenv("CREDENTIALS_DIRECTORY"); }

  static std::string ReadKey() {
    std::ifstream stream(support::AtRestKeyFixture::Path(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
  }
  // A key file of these bytes, with the mode that a key file has, as the one to open.
  std::string UseKey(const std::string& bytes, mode_t mode = 0600) {
    const std::string path = dir_.Write("some.key", bytes);
    EXPECT_EQ(0, chmod(path.c_str(), mode));
    AtRestCipher::Close();
    AtRestCipher::Configure(path);
    return path;
  }
  static std::string ErrorOfOpening(bool store_holds_secrets = true) {
    try {
      AtRestCipher::Open(store_holds_secrets);
    } catch (const tevra::osa::Exception& error) {
      EXPECT_FALSE(AtRestCipher::IsOpen());
      return error.what();
    }
    return "no error";
  }
  static std::string RoundTrip(std::string_view clear) {
    const std::optional<std::string> stored = AtRestCipher::Encrypt(clear);
    if (!stored.has_value()) return "not encrypted";
    const std::optional<tevra::core::SecretText> again = AtRestCipher::Decrypt(*stored);
    return again.has_value() ? std::string(again->View()) : "not decrypted";
  }

  support::PlatformFixture platform_;
  support::AtRestKeyFixture key_;
  support::TempDir dir_;
  support::CapturingLog log_;
};

TEST_F(AtRestCipherTest, GivesBackWhatItEncrypted) {
  AtRestCipher::Open(true);
  EXPECT_EQ("secret", RoundTrip("secret"));
}

TEST_F(AtRestCipherTest, KeepsZeroBytesAndBytesThatAreNoText) {
  AtRestCipher::Open(true);
  const std::string bytes("\0a\xff\xfe\0", 5);
  EXPECT_EQ(bytes, RoundTrip(bytes));
}

TEST_F(AtRestCipherTest, KeepsTheEmptyText) {
  AtRestCipher::Open(true);
  EXPECT_EQ("", RoundTrip(""));
}

TEST_F(AtRestCipherTest, KeepsTextsOfOneBlockAndOfMore) {
  AtRestCipher::Open(true);
  for (const size_t length : {kClearBlock - 1, kClearBlock, kClearBlock + 1, 2 * kClearBlock,
                              2 * kClearBlock + 1, size_t{5000}}) {
    std::string text;
    for (size_t i = 0; i < length; ++i) text += static_cast<char>('a' + i % 26);
    EXPECT_EQ(text, RoundTrip(text)) << length;
  }
}

TEST_F(AtRestCipherTest, TakesOneBlockForTextsThatFitIntoOne) {
  AtRestCipher::Open(true);
  const auto blocks = [](size_t length) {
    return krand::lib::Base64::Decode(*AtRestCipher::Encrypt(std::string(length, 'x'))).size() /
           kKeyBytes;
  };
  EXPECT_EQ(1u, blocks(0));
  EXPECT_EQ(1u, blocks(kClearBlock));
  EXPECT_EQ(2u, blocks(kClearBlock + 1));
}

TEST_F(AtRestCipherTest, WritesOneLineOfBase64) {
  AtRestCipher::Open(true);
  const std::string stored = *AtRestCipher::Encrypt(std::string(1000, 'x'));
  EXPECT_EQ(std::string::npos, stored.find('\n'));
  EXPECT_EQ(stored, krand::lib::Base64::Encode(krand::lib::Base64::Decode(stored)));
}

TEST_F(AtRestCipherTest, EncryptsTheSameTextDifferentlyEachTime) {
  AtRestCipher::Open(true);
  EXPECT_NE(*AtRestCipher::Encrypt("secret"), *AtRestCipher::Encrypt("secret"));
}

TEST_F(AtRestCipherTest, DecryptsNothingThatIsNotItsOwn) {
  AtRestCipher::Open(true);
  const std::string stored = *AtRestCipher::Encrypt("secret");
  EXPECT_FALSE(AtRestCipher::Decrypt("").has_value());
  EXPECT_FALSE(AtRestCipher::Decrypt("not base64!").has_value());
  EXPECT_FALSE(AtRestCipher::Decrypt(std::string(32, 'a')).has_value());
  EXPECT_FALSE(AtRestCipher::Decrypt(stored + "\n").has_value());
  EXPECT_FALSE(AtRestCipher::Decrypt(stored.substr(0, stored.size() - 4)).has_value());
  std::string bytes = krand::lib::Base64::Decode(stored);
  bytes[100] = static_cast<char>(bytes[100] ^ 1);
  EXPECT_FALSE(AtRestCipher::Decrypt(krand::lib::Base64::Encode(bytes)).has_value());
  EXPECT_FALSE(AtRestCipher::Decrypt(krand::lib::Base64::Encode(std::string(kKeyBytes, '\xff')))
                   .has_value());
  EXPECT_EQ("secret", AtRestCipher::Decrypt(stored)->View());
}

TEST_F(AtRestCipherTest, DecryptsNoneOfAChainWithOneDamagedBlock) {
  AtRestCipher::Open(true);
  std::string bytes = krand::lib::Base64::Decode(*AtRestCipher::Encrypt(std::string(500, 'x')));
  bytes.back() = static_cast<char>(bytes.back() ^ 1);
  EXPECT_FALSE(AtRestCipher::Decrypt(krand::lib::Base64::Encode(bytes)).has_value());
}

TEST_F(AtRestCipherTest, DoesNothingWithoutAKey) {
  EXPECT_FALSE(AtRestCipher::IsOpen());
  EXPECT_FALSE(AtRestCipher::Encrypt("secret").has_value());
  EXPECT_FALSE(AtRestCipher::Decrypt("c2VjcmV0").has_value());
  AtRestCipher::BurnDecryption();
}

TEST_F(AtRestCipherTest, ReadsWhatAnEarlierProcessEncrypted) {
  AtRestCipher::Open(true);
  const std::string stored = *AtRestCipher::Encrypt("secret");
  AtRestCipher::Close();
  AtRestCipher::Open(true);
  EXPECT_EQ("secret", AtRestCipher::Decrypt(stored)->View());
}

TEST_F(AtRestCipherTest, StaysWithTheKeyThatIsOpen) {
  AtRestCipher::Open(true);
  AtRestCipher::Configure(dir_.File("missing.key"));
  AtRestCipher::Open(true);
  EXPECT_EQ("secret", RoundTrip("secret"));
}

TEST_F(AtRestCipherTest, OpensAKeyWithoutUsingIt) {
  const support::LibraryWithoutRsa library;
  AtRestCipher::Open(true);
  EXPECT_TRUE(AtRestCipher::IsOpen());
}

TEST_F(AtRestCipherTest, ChecksTheNumbersOfAKeyThatItDoesNotUse) {
  const support::LibraryWithoutRsa library;
  std::string damaged = ReadKey();
  damaged.back() = static_cast<char>(damaged.back() ^ 1);
  const std::string path = UseKey(damaged);
  EXPECT_EQ("key file " + path + ": damaged, its numbers make no key", ErrorOfOpening());
}

TEST_F(AtRestCipherTest, UsesTheKeyThatWasOpenedWhateverBecomesOfItsFile) {
  AtRestCipher::Open(true);
  const std::string stored = *AtRestCipher::Encrypt("secret");
  for (const bool gone : {true, false}) {
    const std::string path = UseKey(ReadKey());
    AtRestCipher::Open(true);
    if (gone) {
      ASSERT_EQ(0, unlink(path.c_str()));
    } else {
      std::ofstream(path) << "damaged";
    }
    EXPECT_EQ("secret", AtRestCipher::Decrypt(stored)->View());
  }
}

TEST_F(AtRestCipherTest, IsNotOpenWithAKeyThatTheLibraryDoesNotTake) {
  AtRestCipher::Open(true);
  const std::string stored = *AtRestCipher::Encrypt("secret");
  for (const auto use : {+[](const std::string& text) { AtRestCipher::Encrypt(text); },
                         +[](const std::string& text) { AtRestCipher::Decrypt(text); },
                         +[](const std::string&) { AtRestCipher::BurnDecryption(); }}) {
    AtRestCipher::Close();
    AtRestCipher::Open(true);
    log_.Clear();
    const support::LibraryWithoutRsa library;
    use(stored);
    EXPECT_FALSE(AtRestCipher::IsOpen());
    EXPECT_TRUE(log_.Contains("key file " + support::AtRestKeyFixture::Path() +
                              ": the key cannot be built: "));
    EXPECT_FALSE(AtRestCipher::Encrypt("secret").has_value());
    EXPECT_FALSE(AtRestCipher::Decrypt(stored).has_value());
  }
  AtRestCipher::Open(true);
  EXPECT_EQ("secret", AtRestCipher::Decrypt(stored)->View());
}

TEST_F(AtRestCipherTest, IsFirstUsedByThreadsAtOnce) {
  AtRestCipher::Open(true);
  const std::string stored = *AtRestCipher::Encrypt("secret");
  AtRestCipher::Close();
  AtRestCipher::Open(true);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] { EXPECT_EQ("secret", AtRestCipher::Decrypt(stored)->View()); });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST_F(AtRestCipherTest, ServesThreadsAtOnce) {
  AtRestCipher::Open(true);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      for (int n = 0; n < 5; ++n) {
        const std::string text = std::to_string(i * 100 + n);
        EXPECT_EQ(text, RoundTrip(text));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST_F(AtRestCipherTest, MakesAKeyFileOnlyForItsOwnUser) {
  const std::string path = dir_.File("new.key");
  AtRestCipher::CreateKeyFile(path, AtRestCipher::kMinimumBits);
  struct stat status {};
  ASSERT_EQ(0, stat(path.c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 07777);
  EXPECT_EQ(static_cast<off_t>(kHeaderBytes + 8 * kNumberBytes), status.st_size);
  // No half-written file stays beside it.
  EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(dir_.Path()), {}));
}

TEST_F(AtRestCipherTest, NeverReplacesAKeyFile) {
  const std::string path = UseKey(ReadKey());
  EXPECT_THROW(AtRestCipher::CreateKeyFile(path, AtRestCipher::kMinimumBits),
               tevra::osa::Exception);
  EXPECT_EQ(ReadKey(), dir_.Read("some.key"));
  EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(dir_.Path()), {}));
}

std::vector<std::string> FilesIn(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

TEST_F(AtRestCipherTest, LeavesNothingWhenItsProcessIsKilledWhileItMakesAKey) {
  const std::string path = dir_.File("first.key");
  for (int milliseconds = 0; milliseconds < 20; ++milliseconds) {
    const pid_t child = fork();
    if (child == 0) {
      AtRestCipher::CreateKeyFile(path, AtRestCipher::kMaximumBits);
      _exit(0);
    }
    poll(nullptr, 0, milliseconds);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    // A lucky child is done already.
    std::filesystem::remove(path);
    EXPECT_EQ(FilesIn(dir_.Path()), std::vector<std::string>{});
  }
}

TEST_F(AtRestCipherTest, RemovesWhatAKilledProcessLeftAndNothingElse) {
  const std::vector<std::string> others = {"first.key.backup", "first.key.unfinished-long-one",
                                           "other.key.unfinished-abcdef"};
  for (const std::string& name : others) dir_.Write(name, "x");
  dir_.Write("first.key.unfinished-abcdef", "half a key");
  dir_.Write("first.key.unfinished-000000", "");
  const std::string busy = dir_.Write("first.key.unfinished-ghijkl", "somebody writes this");
  const int lock = open(busy.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(lock, LOCK_EX), 0);
  AtRestCipher::CreateKeyFile(dir_.File("first.key"), AtRestCipher::kMinimumBits);
  std::vector<std::string> left = others;
  left.insert(left.end(), {"first.key", "first.key.unfinished-ghijkl"});
  std::sort(left.begin(), left.end());
  EXPECT_EQ(FilesIn(dir_.Path()), left);
  close(lock);
}

TEST_F(AtRestCipherTest, MakesAKeyWhereTheFileSystemRenamesPlainlyOnly) {
  const std::string path = dir_.File("first.key");
  plain_renames_only = true;
  AtRestCipher::CreateKeyFile(path, AtRestCipher::kMinimumBits);
  plain_renames_only = false;
  EXPECT_EQ(FilesIn(dir_.Path()), std::vector<std::string>{"first.key"});
  AtRestCipher::Close();
  AtRestCipher::Configure(path);
  EXPECT_EQ(ErrorOfOpening(), "no error");
}

TEST_F(AtRestCipherTest, LeavesNothingOfAKeyThatTheDiskDoesNotTake) {
  const auto previous_handler = signal(SIGXFSZ, SIG_IGN);
  rlimit previous = {};
  getrlimit(RLIMIT_FSIZE, &previous);
  const rlimit full = {100, previous.rlim_max};
  setrlimit(RLIMIT_FSIZE, &full);
  AtRestCipher::Close();
  AtRestCipher::Configure(dir_.File("first.key"));
  const std::string error = ErrorOfOpening(false);
  setrlimit(RLIMIT_FSIZE, &previous);
  signal(SIGXFSZ, previous_handler);
  EXPECT_EQ(error, "key file " + dir_.File("first.key") + ": cannot be written: File too large");
  EXPECT_EQ(FilesIn(dir_.Path()), std::vector<std::string>{});
}

TEST_F(AtRestCipherTest, EndsWithOneKeyWhenTwoMakeItAtOnce) {
  const std::string path = dir_.File("first.key");
  std::atomic<int> made = 0;
  std::vector<std::thread> makers;
  for (int i = 0; i < 4; ++i) {
    makers.emplace_back([&] {
      try {
        AtRestCipher::CreateKeyFile(path, AtRestCipher::kMinimumBits);
        ++made;
      } catch (const tevra::osa::Exception& refused) {
        EXPECT_EQ(refused.what(), "key file " + path + ": exists already");
      }
    });
  }
  for (std::thread& maker : makers) maker.join();
  EXPECT_EQ(made, 1);
  EXPECT_EQ(FilesIn(dir_.Path()), std::vector<std::string>{"first.key"});
}

TEST_F(AtRestCipherTest, MakesKeysOfSensibleSizesOnly) {
  for (const int bits : {0, -1, 512, 1024, 1984, 2047, 2049, 2080, 4097, 4160, 8192}) {
    EXPECT_THROW(AtRestCipher::CreateKeyFile(dir_.File("new.key"), bits), tevra::osa::Exception)
        << bits;
  }
  EXPECT_FALSE(std::filesystem::exists(dir_.File("new.key")));
}

TEST_F(AtRestCipherTest, UsesKeysBetweenTheSizesToo) {
  const std::string path = dir_.File("new.key");
  AtRestCipher::CreateKeyFile(path, 2112);
  AtRestCipher::Configure(path);
  AtRestCipher::Open(true);
  EXPECT_EQ("secret", RoundTrip("secret"));
}

TEST_F(AtRestCipherTest, MakesAMissingKeyOnceTheStoreHoldsNothingForAnother) {
  const std::string path = dir_.File("new.key");
  AtRestCipher::Configure(path);
  AtRestCipher::Open(false);
  EXPECT_EQ(static_cast<uintmax_t>(kHeaderBytes + AtRestCipher::kDefaultBits),
            std::filesystem::file_size(path));
  const std::string stored = *AtRestCipher::Encrypt("secret");
  AtRestCipher::Close();
  AtRestCipher::Open(true);
  EXPECT_EQ("secret", AtRestCipher::Decrypt(stored)->View());
}

TEST_F(AtRestCipherTest, MakesNoNewKeyOverOldValues) {
  const std::string path = dir_.File("lost.key");
  AtRestCipher::Configure(path);
  EXPECT_EQ("key file " + path + ": missing, and the settings hold values encrypted with it",
            ErrorOfOpening(true));
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(AtRestCipherTest, NamesTheFileThatCannotBeMade) {
  const std::string path = dir_.File("no/such/directory/the.key");
  AtRestCipher::Configure(path);
  EXPECT_EQ("key file " + path + ": cannot be made: No such file or directory",
            ErrorOfOpening(false));
}

TEST_F(AtRestCipherTest, LivesBesideTheSettingsByDefault) {
  AtRestCipher::Configure("");
  EXPECT_EQ(platform_.SettingsDir() + "/vigila.key", AtRestCipher::KeyFile());
}

TEST_F(AtRestCipherTest, PrefersTheServiceManagersCredential) {
  const std::string path = dir_.Write("vigila.key", ReadKey());
  // An access list for the service's user shows as a group bit.
  ASSERT_EQ(0, chmod(path.c_str(), 0440));
  setenv("CREDENTIALS_DIRECTORY", dir_.Path().c_str(), 1);
  AtRestCipher::Configure(dir_.File("missing.key"));
  EXPECT_EQ(path, AtRestCipher::KeyFile());
  AtRestCipher::Open(true);
  EXPECT_EQ("secret", RoundTrip("secret"));
}

TEST_F(AtRestCipherTest, RefusesACredentialThatEverybodyMayRead) {
  const std::string path = dir_.Write("vigila.key", ReadKey());
  ASSERT_EQ(0, chmod(path.c_str(), 0444));
  setenv("CREDENTIALS_DIRECTORY", dir_.Path().c_str(), 1);
  EXPECT_EQ("key file " + path + ": open to others (mode 0444), must be 0600", ErrorOfOpening());
}

TEST_F(AtRestCipherTest, IgnoresACredentialsDirectoryWithoutAKey) {
  setenv("CREDENTIALS_DIRECTORY", dir_.Path().c_str(), 1);
  EXPECT_EQ(support::AtRestKeyFixture::Path(), AtRestCipher::KeyFile());
}

TEST_F(AtRestCipherTest, RefusesAFileThatOthersMayRead) {
  for (const mode_t mode : {0640u, 0604u, 0620u, 0602u, 0610u, 0644u, 0666u}) {
    const std::string path = UseKey(ReadKey(), mode);
    EXPECT_NE(std::string::npos, ErrorOfOpening().find(path + ": open to others")) << mode;
  }
  UseKey(ReadKey(), 0400);
  AtRestCipher::Open(true);
  EXPECT_TRUE(AtRestCipher::IsOpen());
}

TEST_F(AtRestCipherTest, RefusesAFileOfAnotherUser) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  const std::string path = UseKey(ReadKey());
  ASSERT_EQ(0, chown(path.c_str(), 12345, 12345));
  EXPECT_EQ("key file " + path + ": owned by another user (uid 12345)", ErrorOfOpening());
}

TEST_F(AtRestCipherTest, RefusesWhatIsNoFile) {
  AtRestCipher::Configure(dir_.Path());
  EXPECT_EQ("key file " + dir_.Path() + ": not a regular file", ErrorOfOpening());
  const std::string pipe = dir_.File("pipe");
  ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
  AtRestCipher::Configure(pipe);
  EXPECT_EQ("key file " + pipe + ": not a regular file", ErrorOfOpening());
}

TEST_F(AtRestCipherTest, RefusesAFileOfAnotherSize) {
  const std::string key = ReadKey();
  for (const std::string& bytes :
       {std::string(), key.substr(0, 1), key.substr(0, key.size() - 1), key + "x",
        key.substr(0, key.size() - 64), key + std::string(64, '\0'), std::string(100000, 'x')}) {
    const std::string path = UseKey(bytes);
    EXPECT_NE(std::string::npos, ErrorOfOpening().find("key file " + path + ": damaged"))
        << bytes.size();
    // Damage is never mended with a new key, whatever the store holds.
    EXPECT_NE(std::string::npos, ErrorOfOpening(false).find("damaged"));
    EXPECT_EQ(bytes, dir_.Read("some.key"));
  }
}

TEST_F(AtRestCipherTest, RefusesAFileWithOneBitFlippedAnywhere) {
  const std::string key = ReadKey();
  for (size_t i = 0; i < key.size(); i += i < kHeaderBytes ? 1 : 13) {
    std::string damaged = key;
    damaged[i] = static_cast<char>(damaged[i] ^ (1 << i % 8));
    const std::string path = UseKey(damaged);
    EXPECT_NE(std::string::npos, ErrorOfOpening().find("key file " + path + ": damaged")) << i;
  }
}

TEST_F(AtRestCipherTest, RefusesANumberThatIsAllZero) {
  const std::string key = ReadKey();
  for (size_t number = 0; number < 8; ++number) {
    std::string damaged = key;
    damaged.replace(kHeaderBytes + number * kNumberBytes, kNumberBytes, kNumberBytes, '\0');
    UseKey(damaged);
    EXPECT_NE(std::string::npos, ErrorOfOpening().find("its numbers make no key")) << number;
  }
}

TEST_F(AtRestCipherTest, NeverLogsASecret) {
  AtRestCipher::Open(true);
  RoundTrip("very secret text");
  AtRestCipher::Decrypt("very secret text");
  EXPECT_FALSE(log_.Contains("very secret text"));
}

}  // namespace
}  // namespace vigila::server
