#include "vigila-gateway/console/site.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <utility>

#include "support/temp_dir.h"
#include "vigila-gateway/console/snapshot.h"

namespace {

using vigila::gateway::HttpHeaders;
using vigila::gateway::HttpResponse;
using vigila::gateway::MakeSnapshot;
using vigila::gateway::Site;
using vigila::gateway::StaticFiles;

class BuiltInSite : public testing::Test {
 protected:
  HttpResponse Get(const std::string& path) const { return site_.Respond("GET", path); }

  const Site site_{nullptr};
};

TEST_F(BuiltInSite, HasAStartPageThatLeadsToEachRule) {
  const HttpResponse response = Get("/");
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.headers, (HttpHeaders{{"Content-Type", "text/html; charset=utf-8"},
                                           {"X-Content-Type-Options", "nosniff"}}));
  EXPECT_EQ(response.body.find("<!DOCTYPE html>\n"), 0u);
  for (const char* path : {"/system", "/jpeg/", "/inject.cgi", "/logout"}) {
    EXPECT_NE(response.body.find("href=\"" + std::string(path) + "\""), std::string::npos) << path;
  }
}

TEST_F(BuiltInSite, ShowsAllPictures) {
  const std::string body = Get("/jpeg/").body;
  EXPECT_EQ(Get("/jpeg").body, body);
  size_t pictures = 0;
  for (size_t at = body.find("<img "); at != std::string::npos; at = body.find("<img ", at + 1)) {
    ++pictures;
  }
  EXPECT_EQ(pictures, 40u);
  EXPECT_NE(body.find("<img src=\"/jpeg/1\" alt=\"Picture 1\""), std::string::npos);
  EXPECT_NE(body.find("<img src=\"/jpeg/40\" alt=\"Picture 40\""), std::string::npos);
}

TEST_F(BuiltInSite, HasPicturesFromOneToForty) {
  for (const unsigned number : {1u, 9u, 10u, 39u, 40u}) {
    const HttpResponse response = Get("/jpeg/" + std::to_string(number));
    EXPECT_EQ(response.status, 200) << number;
    EXPECT_EQ(response.headers,
              (HttpHeaders{{"Content-Type", "image/jpeg"}, {"X-Content-Type-Options", "nosniff"}}));
    EXPECT_EQ(response.body, MakeSnapshot(number)) << number;
  }
}

TEST_F(BuiltInSite, HasNoOtherPictureAndNoOtherSpelling) {
  for (const char* path : {"/jpeg/0", "/jpeg/41", "/jpeg/99", "/jpeg/100", "/jpeg/01", "/jpeg/1/",
                           "/jpeg/1x", "/jpeg/x", "/jpeg/-1", "/jpeg/+1", "/jpeg/ 1",
                           "/jpeg/:", "/jpeg//", "/jpeg/4294967297", "/jpegs/1", "/JPEG/1"}) {
    EXPECT_EQ(Get(path).status, 404) << path;
  }
}

TEST_F(BuiltInSite, TellsOfTheSystem) {
  const HttpResponse response = Get("/system");
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.headers, (HttpHeaders{{"Content-Type", "application/json"}}));
  EXPECT_EQ(response.body, "{\"Device\":\"video device\",\"Pictures\":40}\n");
}

TEST_F(BuiltInSite, AnswersHeadAsGet) {
  for (const char* path : {"/", "/system", "/jpeg/7", "/inject.cgi", "/nothing"}) {
    const HttpResponse head = site_.Respond("HEAD", path);
    EXPECT_EQ(head.status, Get(path).status) << path;
    EXPECT_EQ(head.headers, Get(path).headers) << path;
    EXPECT_EQ(head.body, Get(path).body) << path;
  }
}

TEST_F(BuiltInSite, TakesPostsOnlyWhereSomethingIsDone) {
  const HttpResponse injected = site_.Respond("POST", "/inject.cgi");
  EXPECT_EQ(injected.status, 200);
  EXPECT_EQ(injected.body, "Injected.\n");
  for (const char* path : {"/", "/system", "/jpeg/", "/jpeg/1", "/nothing", "/inject.cgi/"}) {
    const HttpResponse response = site_.Respond("POST", path);
    EXPECT_EQ(response.status, 405) << path;
    EXPECT_EQ(response.headers,
              (HttpHeaders{{"Content-Type", "text/plain; charset=utf-8"}, {"Allow", "GET, HEAD"}}))
        << path;
    EXPECT_EQ(response.body, "This cannot be done here.\n") << path;
  }
}

TEST_F(BuiltInSite, KnowsNoOtherMethod) {
  for (const char* method : {"PUT", "DELETE", "OPTIONS", "get", "Post", "", "GET "}) {
    EXPECT_EQ(site_.Respond(method, "/").status, 405) << method;
    const HttpResponse response = site_.Respond(method, "/inject.cgi");
    EXPECT_EQ(response.status, 405) << method;
    EXPECT_EQ(response.headers.back().second, "GET, HEAD, POST") << method;
  }
}

TEST_F(BuiltInSite, HasNothingElse) {
  for (const char* path : {"", "/nothing", "/system/", "//", "/index.html", "/inject.cgi/x"}) {
    const HttpResponse response = Get(path);
    EXPECT_EQ(response.status, 404) << path;
    EXPECT_EQ(response.body, "There is nothing here.\n") << path;
  }
}

class SiteWithFiles : public testing::Test {
 protected:
  SiteWithFiles() {
    std::filesystem::create_directories(dir_.File("sub/empty"));
    std::filesystem::create_directories(dir_.File("jpeg"));
    dir_.Write("page.html", "a page");
    dir_.Write("index.html", "not the start");
    dir_.Write("system", "not the system");
    dir_.Write("jpeg/1", "not a picture");
    dir_.Write("jpeg/41", "a picture");
    dir_.Write("sub/index.html", "the index");
    dir_.Write("subindex.html", "not the index of sub");
    site_ = std::make_unique<Site>(std::make_unique<StaticFiles>(dir_.Path()));
  }
  HttpResponse Get(const std::string& path) const { return site_->Respond("GET", path); }

  const support::TempDir dir_;
  std::unique_ptr<Site> site_;
};

TEST_F(SiteWithFiles, ServesThem) {
  EXPECT_EQ(Get("/page.html").body, "a page");
  EXPECT_EQ(Get("/page.html").status, 200);
  EXPECT_EQ(Get("/index.html").body, "not the start");
  EXPECT_EQ(Get("/jpeg/41").body, "a picture");
}

TEST_F(SiteWithFiles, HasItsBuiltInPagesFirst) {
  EXPECT_NE(Get("/").body.find("Video device"), std::string::npos);
  EXPECT_NE(Get("/system").body.find("\"Pictures\":40"), std::string::npos);
  EXPECT_EQ(Get("/jpeg/1").body, MakeSnapshot(1));
}

TEST_F(SiteWithFiles, SendsToAnIndexByItsOwnName) {
  const HttpResponse response = Get("/sub/");
  EXPECT_EQ(response.status, 302);
  EXPECT_EQ(response.headers, (HttpHeaders{{"Content-Type", "text/plain; charset=utf-8"},
                                           {"Location", "index.html"}}));
  EXPECT_EQ(response.body, "See the index.\n");
  EXPECT_EQ(Get("/sub/index.html").body, "the index");
}

TEST_F(SiteWithFiles, HasNothingAtADirectoryWithoutAnIndex) {
  for (const char* path : {"/sub", "/sub/empty/", "/sub/empty", "/page.html/", "/missing"}) {
    EXPECT_EQ(Get(path).status, 404) << path;
    EXPECT_EQ(Get(path).body, "There is nothing here.\n") << path;
  }
}

TEST_F(SiteWithFiles, TakesNoPostsToThem) {
  const HttpResponse response = site_->Respond("POST", "/page.html");
  EXPECT_EQ(response.status, 405);
  EXPECT_EQ(response.headers.back().second, "GET, HEAD");
}

}  // namespace
