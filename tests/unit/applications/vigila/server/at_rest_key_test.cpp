#include "vigila/server/at_rest_key.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "support/at_rest_key_fixture.h"
#include "support/library_without_rsa.h"
#include "support/temp_dir.h"
#include "support/text_thrown_by.h"
#include "tevra/osa/exception.h"

namespace vigila::server {
namespace {

using support::TextThrownBy;

constexpr size_t kNumberBytes = AtRestKey::kMinimumBits / 8;
constexpr size_t kHeaderBytes = 32;

class AtRestKeyTest : public testing::Test {
 protected:
  static std::string ReadKey() {
    std::ifstream stream(support::AtRestKeyFixture::Path(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
  }
  static std::unique_ptr<const AtRestKey> Load(const std::string& path) {
    return AtRestKey::Load(path, AtRestKey::Kind::kOwnFile);
  }
  // What loading and building a key of these bytes throws, behind the file's name.
  std::string ErrorOfBuilding(const std::string& bytes) const {
    const std::string path = dir_.Write("some.key", bytes);
    EXPECT_EQ(0, chmod(path.c_str(), 0600));
    const std::string text = TextThrownBy([&] { Load(path)->Build(); });
    const std::string begin = "key file " + path + ": ";
    return text.starts_with(begin) ? text.substr(begin.size()) : "no file named: " + text;
  }

  support::TempDir dir_;
};

TEST_F(AtRestKeyTest, IsMadeOnceAndLoadedAgain) {
  const std::string path = dir_.File("new.key");
  EXPECT_EQ(nullptr, Load(path));
  EXPECT_TRUE(AtRestKey::Create(path, AtRestKey::kMinimumBits));
  EXPECT_EQ(kHeaderBytes + 8 * kNumberBytes, std::filesystem::file_size(path));
  const std::string made = dir_.Read("new.key");
  EXPECT_FALSE(AtRestKey::Create(path, AtRestKey::kMinimumBits));
  EXPECT_EQ(made, dir_.Read("new.key"));
  ASSERT_NE(nullptr, Load(path));
  EXPECT_EQ(path, Load(path)->Path());
  EXPECT_EQ(AtRestKey::kMinimumBits, EVP_PKEY_get_bits(Load(path)->Build().get()));
}

TEST_F(AtRestKeyTest, LeavesNothingWhenItsProcessIsKilledWhileItMakesAKey) {
  const std::string path = dir_.File("first.key");
  for (int milliseconds = 0; milliseconds < 20; ++milliseconds) {
    const pid_t child = fork();
    if (child == 0) {
      AtRestKey::Create(path, AtRestKey::kMaximumBits);
      _exit(0);
    }
    poll(nullptr, 0, milliseconds);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    // A lucky child is done already.
    std::filesystem::remove(path);
    EXPECT_TRUE(std::filesystem::is_empty(dir_.Path()));
  }
}

TEST_F(AtRestKeyTest, IsOfASensibleSizeOnly) {
  const std::string path = dir_.File("new.key");
  for (const int bits : {0, -1, 512, 1024, 1984, 2047, 2049, 2080, 4097, 4160, 8192}) {
    EXPECT_EQ("key file " + path + ": " + std::to_string(bits) + " bits is no key's size",
              TextThrownBy([&] { AtRestKey::Create(path, bits); }));
  }
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(AtRestKeyTest, MayBeBetweenTheSizes) {
  const std::string path = dir_.File("new.key");
  AtRestKey::Create(path, 2112);
  EXPECT_EQ(2112, EVP_PKEY_get_bits(Load(path)->Build().get()));
}

TEST_F(AtRestKeyTest, IsCheckedBeforeTheLibraryIsAskedToTakeIt) {
  const support::LibraryWithoutRsa library;
  std::string damaged = ReadKey();
  damaged.back() = static_cast<char>(damaged.back() ^ 1);
  EXPECT_EQ("damaged, its numbers make no key", ErrorOfBuilding(damaged));
}

TEST_F(AtRestKeyTest, SaysWhyTheLibraryDoesNotTakeIt) {
  const std::unique_ptr<const AtRestKey> key = Load(support::AtRestKeyFixture::Path());
  const support::LibraryWithoutRsa library;
  const std::string text = TextThrownBy([&] { key->Build(); });
  EXPECT_TRUE(text.starts_with("key file " + key->Path() + ": the key cannot be built: error:"))
      << text;
}

TEST_F(AtRestKeyTest, RefusesAFileOfAnotherSize) {
  const std::string key = ReadKey();
  for (const std::string& bytes :
       {std::string(), key.substr(0, 1), key.substr(0, key.size() - 1), key + "x",
        key.substr(0, key.size() - 64), key + std::string(64, '\0'), std::string(100000, 'x')}) {
    EXPECT_TRUE(ErrorOfBuilding(bytes).starts_with("damaged")) << bytes.size();
  }
}

TEST_F(AtRestKeyTest, RefusesAFileWithOneBitFlippedAnywhere) {
  const std::string key = ReadKey();
  for (size_t i = 0; i < key.size(); i += i < kHeaderBytes ? 1 : 13) {
    std::string damaged = key;
    damaged[i] = static_cast<char>(damaged[i] ^ (1 << i % 8));
    EXPECT_TRUE(ErrorOfBuilding(damaged).starts_with("damaged")) << i;
  }
}

TEST_F(AtRestKeyTest, RefusesANumberThatIsAllZero) {
  for (size_t number = 0; number < 8; ++number) {
    std::string damaged = ReadKey();
    damaged.replace(kHeaderBytes + number * kNumberBytes, kNumberBytes, kNumberBytes, '\0');
    EXPECT_EQ("damaged, its numbers make no key", ErrorOfBuilding(damaged)) << number;
  }
}

}  // namespace
}  // namespace vigila::server
