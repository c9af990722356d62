#include "vigila-gateway/http/request_path.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using vigila::gateway::kMaximumTargetBytes;
using vigila::gateway::ParseRequestTarget;

std::string PathOf(const std::string& target) {
  const auto parsed = ParseRequestTarget(target);
  return parsed ? parsed->path : "(refused)";
}
std::string QueryOf(const std::string& target) {
  return ParseRequestTarget(target)->query;
}

TEST(RequestPath, KeepsAPlainPath) {
  EXPECT_EQ(PathOf("/"), "/");
  EXPECT_EQ(PathOf("/jpeg/1"), "/jpeg/1");
  EXPECT_EQ(PathOf("/jpeg/"), "/jpeg/");
  EXPECT_EQ(PathOf("/a.b/..c/.d"), "/a.b/..c/.d");
}

TEST(RequestPath, DecodesEscapesExactlyOnce) {
  EXPECT_EQ(PathOf("/%69nject.cgi"), "/inject.cgi");
  EXPECT_EQ(PathOf("/%2569nject.cgi"), "/%69nject.cgi");
  EXPECT_EQ(PathOf("/a%2Fb%2fc"), "/a/b/c");
  EXPECT_EQ(PathOf("/%C3%A4"), "/\xc3\xa4");
}

TEST(RequestPath, RemovesDotSegmentsHoweverTheyAreWritten) {
  EXPECT_EQ(PathOf("/jpeg/../inject.cgi"), "/inject.cgi");
  EXPECT_EQ(PathOf("/jpeg/%2e%2E/inject.cgi"), "/inject.cgi");
  EXPECT_EQ(PathOf("/jpeg%2f..%2finject.cgi"), "/inject.cgi");
  EXPECT_EQ(PathOf("/./inject.cgi"), "/inject.cgi");
  EXPECT_EQ(PathOf("/a/b/."), "/a/b/");
  EXPECT_EQ(PathOf("/a/b/.."), "/a/");
  EXPECT_EQ(PathOf("/a/.."), "/");
}

TEST(RequestPath, StaysAtTheRootHoweverFarUpItIsAsked) {
  EXPECT_EQ(PathOf("/.."), "/");
  EXPECT_EQ(PathOf("/../../inject.cgi"), "/inject.cgi");
}

TEST(RequestPath, MergesRepeatedSlashes) {
  EXPECT_EQ(PathOf("//inject.cgi"), "/inject.cgi");
  EXPECT_EQ(PathOf("/a///b//"), "/a/b/");
  EXPECT_EQ(PathOf("/a/%2f%2f/b"), "/a/b");
}

TEST(RequestPath, CutsQueryAndFragment) {
  EXPECT_EQ(PathOf("/a?b/../c"), "/a");
  EXPECT_EQ(QueryOf("/a?b=1&c=/../d"), "b=1&c=/../d");
  EXPECT_EQ(PathOf("/a#b?c"), "/a");
  EXPECT_EQ(QueryOf("/a#b?c"), "");
  EXPECT_EQ(QueryOf("/a?b#c"), "b");
  EXPECT_EQ(PathOf("/a%3Fb%23c"), "/a?b#c");
}

TEST(RequestPath, ReadsTheAbsoluteForm) {
  EXPECT_EQ(PathOf("http://device/jpeg/1"), "/jpeg/1");
  EXPECT_EQ(PathOf("HTTP://device:80"), "/");
  EXPECT_EQ(PathOf("http://device?x"), "/");
  EXPECT_EQ(QueryOf("http://device?x"), "x");
  EXPECT_EQ(PathOf("rtsp://user@device/s"), "/s");
}

TEST(RequestPath, RefusesWhatIsNoPath) {
  for (const char* target : {"", "*", "jpeg/1", "device:80", "://x/y", "1a://x/y", "?a", "#a"}) {
    EXPECT_EQ(PathOf(target), "(refused)") << target;
  }
}

TEST(RequestPath, RefusesBrokenEscapes) {
  for (const char* target : {"/%", "/%1", "/%zz", "/%1g", "/a%", "/%%41", "/%u0041", "/% 41"}) {
    EXPECT_EQ(PathOf(target), "(refused)") << target;
  }
}

TEST(RequestPath, RefusesZeroAndControlBytesWrittenEitherWay) {
  EXPECT_EQ(PathOf("/a%00b"), "(refused)");
  EXPECT_EQ(PathOf(std::string("/a\0b", 4)), "(refused)");
  EXPECT_EQ(PathOf("/a%0d%0aSet-Cookie:x"), "(refused)");
  EXPECT_EQ(PathOf("/a%1f"), "(refused)");
  EXPECT_EQ(PathOf("/a%7f"), "(refused)");
  EXPECT_EQ(PathOf("/a b"), "(refused)");
  EXPECT_EQ(PathOf("/a?b\tc"), "(refused)");
  EXPECT_EQ(PathOf("/a%20b"), "/a b");
}

TEST(RequestPath, RefusesBytesThatAreNotUtf8) {
  for (const char* target : {"/%ff", "/%c0%af", "/%c0%ae%c0%ae/x", "/%e0%80%af", "/%ed%a0%80",
                             "/%f4%90%80%80", "/%c3", "/\xff", "/%80"}) {
    EXPECT_EQ(PathOf(target), "(refused)") << target;
  }
  EXPECT_EQ(PathOf("/%f0%9f%8e%a5"), "/\xf0\x9f\x8e\xa5");
}

TEST(RequestPath, IsBoundedInLength) {
  const std::string longest = "/" + std::string(kMaximumTargetBytes - 1, 'a');
  EXPECT_EQ(PathOf(longest), longest);
  EXPECT_EQ(PathOf(longest + "a"), "(refused)");
}

TEST(RequestPath, IsTheSameForACanonicalPathReadAgain) {
  for (const char* target : {"/", "/a/b/", "/a//../b/./c", "/x/..", "/.../a"}) {
    const std::string path = PathOf(target);
    EXPECT_EQ(PathOf(path), path) << target;
  }
}

}  // namespace
