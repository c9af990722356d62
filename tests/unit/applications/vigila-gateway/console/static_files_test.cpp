#include "vigila-gateway/console/static_files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <system_error>

#include "support/temp_dir.h"

namespace {

using vigila::gateway::StaticFiles;

class AStaticSite : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(outside_.File("site/sub"));
    outside_.Write("secret", "secret");
    outside_.Write("site/a.html", "<p>");
    outside_.Write("site/sub/index.html", "index");
    outside_.Write("site/empty", "");
    ASSERT_EQ(symlink("../secret", outside_.File("site/link").c_str()), 0);
    ASSERT_EQ(symlink("..", outside_.File("site/up").c_str()), 0);
    ASSERT_EQ(mkfifo(outside_.File("site/fifo").c_str(), 0600), 0);
  }
  std::string BodyOf(const std::string& path) const {
    const StaticFiles files(outside_.File("site"));
    const auto response = files.Read(path);
    return response ? response->body : "(none)";
  }
  const support::TempDir outside_;
};

TEST_F(AStaticSite, ServesItsFilesWithTheirTypes) {
  EXPECT_EQ(BodyOf("/a.html"), "<p>");
  EXPECT_EQ(BodyOf("/sub/index.html"), "index");
  EXPECT_EQ(BodyOf("/empty"), "");
  const StaticFiles files(outside_.File("site"));
  EXPECT_EQ(files.Read("/a.html")->headers.front().second, "text/html; charset=utf-8");
  EXPECT_EQ(files.Read("/empty")->headers.front().second, "application/octet-stream");
  EXPECT_TRUE(files.Has("/empty"));
}

TEST_F(AStaticSite, ServesNothingElse) {
  const StaticFiles files(outside_.File("site"));
  for (const char* path : {"/", "/sub", "/sub/", "/nothing", "/link", "/up/secret", "/../secret",
                           "/fifo", "/a.html/", "/a.html/x"}) {
    EXPECT_EQ(BodyOf(path), "(none)") << path;
    EXPECT_FALSE(files.Has(path)) << path;
  }
}

TEST_F(AStaticSite, ServesNothingWithADotInFrontOfItsName) {
  std::filesystem::create_directories(outside_.File("site/.git/objects"));
  std::filesystem::create_directories(outside_.File("site/sub/.x"));
  for (const char* file : {".htpasswd", ".git/config", ".git/objects/a", ".git/index.html",
                           "sub/.x/y", "sub/.z", "..a", "a.b"}) {
    outside_.Write(std::string("site/") + file, "content");
  }
  const StaticFiles files(outside_.File("site"));
  for (const char* path : {"/.htpasswd", "/.git/config", "/.git/objects/a", "/.git/index.html",
                           "/sub/.x/y", "/sub/.z", "/..a"}) {
    EXPECT_EQ(BodyOf(path), "(none)") << path;
    EXPECT_FALSE(files.Has(path)) << path;
  }
  EXPECT_EQ(BodyOf("/a.b"), "content");
  // The directory itself may be called as its owner likes.
  EXPECT_EQ(StaticFiles(outside_.File("site/.git")).Read("/config")->body, "content");
}

TEST_F(AStaticSite, IsNotMadeOfWhatIsNoDirectory) {
  EXPECT_THROW(StaticFiles(outside_.File("none")), std::system_error);
  EXPECT_THROW(StaticFiles(outside_.File("secret")), std::system_error);
}

}  // namespace
