#include "tevra/osa/unfinished_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <system_error>

#include "support/temp_dir.h"

namespace tevra::osa {
namespace {

class UnfinishedFileTest : public testing::Test {
 protected:
  UnfinishedFileTest() : path_(dir_.File("file")) {}
  void Fill(const UnfinishedFile& file, const std::string& text) const {
    ASSERT_EQ(write(file.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  size_t Files() const {
    const std::filesystem::directory_iterator files(dir_.Path());
    return static_cast<size_t>(std::distance(begin(files), end(files)));
  }

  const support::TempDir dir_;
  const std::string path_;
};

TEST_F(UnfinishedFileTest, LeavesNothingUnlessItIsMoved) {
  {
    const UnfinishedFile file(path_);
    EXPECT_EQ(Files(), 1u);
  }
  EXPECT_EQ(Files(), 0u);
}

TEST_F(UnfinishedFileTest, TakesItsPlaceForItsOwnerAlone) {
  {
    UnfinishedFile file(path_);
    Fill(file, "new");
    EXPECT_TRUE(file.MoveIntoPlace());
  }
  EXPECT_EQ(dir_.Read("file"), "new");
  EXPECT_EQ(Files(), 1u);
  struct stat status;
  ASSERT_EQ(stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(UnfinishedFileTest, LeavesAFileThatIsThereUnlessItIsToReplaceIt) {
  dir_.Write("file", "old");
  UnfinishedFile file(path_);
  Fill(file, "new");
  EXPECT_FALSE(file.MoveIntoPlace());
  EXPECT_EQ(dir_.Read("file"), "old");
  file.Replace();
  EXPECT_EQ(dir_.Read("file"), "new");
}

TEST_F(UnfinishedFileTest, SaysWhyThereIsNone) {
  try {
    const UnfinishedFile file(dir_.File("missing/file"));
    ADD_FAILURE() << "it was made";
  } catch (const std::system_error& failure) {
    EXPECT_EQ(failure.code().value(), ENOENT);
  }
}

TEST_F(UnfinishedFileTest, IsNotTakenForRemainsWhileItIsHeld) {
  dir_.Write("file.unfinished-Ab3dEf", "remains");
  dir_.Write("file.unfinished-Ab3dEf-log", "remains");
  const UnfinishedFile file(path_);
  const char* const companions[] = {"-log"};
  UnfinishedFile::RemoveRemains(path_, companions);
  EXPECT_EQ(Files(), 1u);
  EXPECT_TRUE(std::filesystem::exists(file.Name()));
}

TEST_F(UnfinishedFileTest, KnowsTheDirectoryOfAnyPath) {
  EXPECT_EQ(UnfinishedFile::DirectoryOf("/var/lib/vigila/file"), "/var/lib/vigila/");
  EXPECT_EQ(UnfinishedFile::DirectoryOf("/file"), "/");
  EXPECT_EQ(UnfinishedFile::DirectoryOf("directory/file"), "directory/");
  EXPECT_EQ(UnfinishedFile::DirectoryOf("file"), ".");
}

TEST_F(UnfinishedFileTest, HasItsRemainsRemovedWhereItsPathIsABareName) {
  dir_.Write("file.unfinished-Ab3dEf", "remains");
  const std::filesystem::path previous = std::filesystem::current_path();
  std::filesystem::current_path(dir_.Path());
  UnfinishedFile::RemoveRemains("file");
  std::filesystem::current_path(previous);
  EXPECT_EQ(Files(), 0u);
}

TEST_F(UnfinishedFileTest, HasNoRemainsWhereThereIsNoDirectory) {
  EXPECT_NO_THROW(UnfinishedFile::RemoveRemains(dir_.File("missing/file")));
}

}  // namespace
}  // namespace tevra::osa
