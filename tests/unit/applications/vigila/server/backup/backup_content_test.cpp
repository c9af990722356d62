#include "vigila/server/backup/backup_content.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>

#include "support/sealed_backup.h"

namespace vigila::server {
namespace {

using support::FullContent;

using namespace std::string_literals;
using namespace std::string_view_literals;

BackupContent SmallContent() {
  BackupContent content;
  content.accounts["nobody"].group = 16;
  content.accounts["admin"] = {1, 1800000000, 7, 8, 2, "adminpass"};
  content.accounts["b\xc3\xb6se \"\\\xff"] = {-3, 0xffffffff, 0, 0, 0, "\0 zero"sv};
  content.histories["admin"] = {"first", "second"};
  content.histories["gone"] = {};
  content.passphrases["_id"] = {"alias\0\xff"s, std::string_view("phrase\0\n", 8)};
  content.rules["/jpeg*"] = "@admins";
  return content;
}

TEST(BackupContent, IsReadAsItWasWritten) {
  const BackupContent content = SmallContent();
  const tevra::core::SecretText bytes = content.Encode();
  const std::optional<BackupContent> read = BackupContent::Decode(bytes.View());
  ASSERT_TRUE(read.has_value());
  EXPECT_EQ(read->accounts, content.accounts);
  EXPECT_EQ(read->histories, content.histories);
  EXPECT_EQ(read->passphrases, content.passphrases);
  EXPECT_EQ(read->rules, content.rules);
}

// Each record is whole or not, so a cut between two is the only one that may be read.
TEST(BackupContent, CutShortIsNotReadInPlaceOfTheWhole) {
  const BackupContent content = SmallContent();
  const tevra::core::SecretText bytes = content.Encode();
  size_t read = 0;
  for (size_t length = 0; length < bytes.Size(); ++length) {
    const auto cut = BackupContent::Decode(bytes.View().substr(0, length));
    if (!cut) continue;
    ++read;
    EXPECT_EQ(cut->Encode().View(), bytes.View().substr(0, length));
  }
  EXPECT_LE(read, 6u);
}

TEST(BackupContent, ThatNoStoreHasIsRefused) {
  const std::string nobody = "a\0\0\0\6nobody\0\0\0\x10"s + std::string(16, '\0');
  ASSERT_TRUE(BackupContent::Decode(nobody).has_value());
  EXPECT_FALSE(BackupContent::Decode("").has_value()) << "no anonymous account";
  EXPECT_FALSE(BackupContent::Decode(nobody + nobody).has_value()) << "twice the same";
  EXPECT_FALSE(BackupContent::Decode(nobody + "x\0\0\0\1k"s).has_value()) << "unknown record";
  EXPECT_FALSE(BackupContent::Decode(nobody + "r\0\0\0\1\0\0\0\0\1v"s).has_value()) << "zero byte";
  EXPECT_FALSE(BackupContent::Decode(nobody + "h\0\0\0\1n\xff\xff\xff\xff"s).has_value())
      << "a list without its texts";
  EXPECT_FALSE(BackupContent::Decode(nobody + "r\0\0\0\1k\xff\xff\xff\xffv"s).has_value())
      << "a text longer than all";
  EXPECT_FALSE(BackupContent::Decode(nobody + "A\0\0\0\1k"s + std::string(24, '\0')).has_value())
      << "an empty password";
}

TEST(BackupContent, OfMoreAccountsThanADeviceMayHaveIsRefused) {
  std::deque<std::string> secrets;
  BackupContent content = FullContent(secrets);
  EXPECT_TRUE(BackupContent::Decode(content.Encode().View()).has_value());
  content.accounts["one more"].group = 8;
  EXPECT_FALSE(BackupContent::Decode(content.Encode().View()).has_value());
}

}  // namespace
}  // namespace vigila::server
