#include "vigila/server/backup/backup_file.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>

#include "support/sealed_backup.h"
#include "vigila/contract/result_codes.h"

namespace vigila::server {
namespace {

using support::FullContent;
using support::kBackupPassphrase;
using support::Sealed;
using support::WithCheckSum;

const std::string kContent = "everything that a device knows";

TEST(BackupFile, GivesItsContentToThePassphraseAlone) {
  const std::string file = BackupFile::Seal(kContent, kBackupPassphrase);
  ASSERT_EQ(BackupFile::Inspect(file), contract::kApplied);
  EXPECT_EQ(BackupFile::Open(file, kBackupPassphrase)->View(), kContent);
  EXPECT_FALSE(BackupFile::Open(file, kBackupPassphrase + "s").has_value());
  EXPECT_FALSE(BackupFile::Open(file, "").has_value());
}

TEST(BackupFile, HidesItsContentAndIsAnotherEachTime) {
  const std::string file = BackupFile::Seal(kContent, kBackupPassphrase);
  EXPECT_EQ(file.size(), kContent.size() + 92);
  EXPECT_EQ(file.find("device"), std::string::npos);
  const std::string other = BackupFile::Seal(kContent, kBackupPassphrase);
  EXPECT_NE(file.substr(16, 16), other.substr(16, 16)) << "one salt for two files";
  EXPECT_NE(file.substr(44), other.substr(44));
}

TEST(BackupFile, HoldsNoContentAtAll) {
  const std::string file = BackupFile::Seal("", kBackupPassphrase);
  ASSERT_EQ(BackupFile::Inspect(file), contract::kApplied);
  EXPECT_TRUE(BackupFile::Open(file, kBackupPassphrase)->Empty());
}

TEST(BackupFile, CutShortAnywhereIsDamaged) {
  const std::string file = BackupFile::Seal(kContent, kBackupPassphrase);
  for (size_t length = 0; length < file.size(); ++length) {
    EXPECT_EQ(BackupFile::Inspect(file.substr(0, length)), contract::kBackupDamaged) << length;
  }
  EXPECT_EQ(BackupFile::Inspect(file + '\0'), contract::kBackupDamaged);
}

TEST(BackupFile, WithAnyBitFlippedIsDamaged) {
  const std::string file = BackupFile::Seal(kContent, kBackupPassphrase);
  for (size_t bit = 0; bit < 8 * file.size(); ++bit) {
    std::string damaged = file;
    damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << bit % 8));
    EXPECT_EQ(BackupFile::Inspect(damaged), contract::kBackupDamaged) << bit;
  }
}

TEST(BackupFile, OfALaterVersionIsCalledThat) {
  std::string file = BackupFile::Seal(kContent, kBackupPassphrase);
  file[11] = 2;
  EXPECT_EQ(BackupFile::Inspect(WithCheckSum(file)), contract::kBackupNewer);
  file[8] = '\xff';
  EXPECT_EQ(BackupFile::Inspect(WithCheckSum(file)), contract::kBackupNewer);
  file[8] = file[11] = 0;
  EXPECT_EQ(BackupFile::Inspect(WithCheckSum(file)), contract::kBackupDamaged);
}

TEST(BackupFile, ThatAsksForUnbearableWorkIsRefusedBeforeIt) {
  const std::string sealed = BackupFile::Seal(kContent, kBackupPassphrase);
  struct Work {
    size_t at;
    char value;
  };
  for (const Work work :
       {Work{12, 63}, Work{12, 17}, Work{12, 13}, Work{12, 0}, Work{13, 9}, Work{13, '\xff'},
        Work{13, 0}, Work{14, 5}, Work{14, '\xff'}, Work{14, 0}, Work{15, 1}}) {
    std::string file = sealed;
    file[work.at] = work.value;
    EXPECT_EQ(BackupFile::Inspect(WithCheckSum(file)), contract::kBackupDamaged)
        << work.at << " " << int{work.value};
  }
}

// Whoever changes the file can make its check sum, but not its tag.
TEST(BackupFile, ThatWasTamperedWithDoesNotOpen) {
  const std::string file = BackupFile::Seal(kContent, kBackupPassphrase);
  for (const size_t at : {size_t{16}, size_t{32}, size_t{44}, file.size() - 33}) {
    std::string tampered = file;
    tampered[at] = static_cast<char>(tampered[at] ^ 1);
    tampered = WithCheckSum(tampered);
    ASSERT_EQ(BackupFile::Inspect(tampered), contract::kApplied);
    EXPECT_FALSE(BackupFile::Open(tampered, kBackupPassphrase).has_value()) << at;
  }
}

TEST(BackupFile, OfAFullDeviceIsDamagedByACutAtAnyKilobyteAndByAFlippedByteInAThousand) {
  std::deque<std::string> secrets;
  const std::string file = Sealed(FullContent(secrets));
  ASSERT_EQ(BackupFile::Inspect(file), contract::kApplied);
  ASSERT_GT(file.size(), 200u * 1024);
  for (size_t length = 0; length < file.size(); length += 1024) {
    ASSERT_EQ(BackupFile::Inspect(std::string_view(file).substr(0, length)),
              contract::kBackupDamaged)
        << length;
  }
  for (size_t at = 0; at < file.size(); at += 1000) {
    std::string damaged = file;
    damaged[at] = static_cast<char>(~damaged[at]);
    ASSERT_EQ(BackupFile::Inspect(damaged), contract::kBackupDamaged) << at;
  }
}

}  // namespace
}  // namespace vigila::server
