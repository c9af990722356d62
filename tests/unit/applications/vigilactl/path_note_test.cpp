#include "vigilactl/path_note.h"

#include <gtest/gtest.h>

namespace vigilactl {
namespace {

TEST(PathDoubt, IsSilentAboutCanonicalPaths) {
  for (const char* path : {"/", "/a", "/a/", "/a/b.cgi", "/.hidden", "/a..b", "/...", "/a b"}) {
    EXPECT_EQ(PathDoubt(path), "") << path;
  }
}

TEST(PathDoubt, NamesWhatAWebServerWouldHaveChanged) {
  EXPECT_EQ(PathDoubt(""), "does not begin with \"/\"");
  EXPECT_EQ(PathDoubt("a/b"), "does not begin with \"/\"");
  EXPECT_EQ(PathDoubt("http://host/a"), "does not begin with \"/\"");
  EXPECT_EQ(PathDoubt("/a?b=/c"), "has a query or a fragment");
  EXPECT_EQ(PathDoubt("/a#b"), "has a query or a fragment");
  EXPECT_EQ(PathDoubt("//a"), "has two slashes in a row");
  EXPECT_EQ(PathDoubt("/a//b"), "has two slashes in a row");
  for (const char* path : {"/.", "/..", "/./a", "/a/../b", "/a/.."}) {
    EXPECT_EQ(PathDoubt(path), "has a \".\" or \"..\" segment") << path;
  }
  EXPECT_EQ(PathDoubt("/%61"), "is percent-encoded");
}

}  // namespace
}  // namespace vigilactl
