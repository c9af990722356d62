#include "tevra/osa/exception.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using tevra::osa::Exception;

TEST(Exception, FormatsItsMessage) {
  const Exception error("user %s: %d", "alice", 17);
  EXPECT_STREQ(error.what(), "user alice: 17");
  EXPECT_EQ(error.code(), Exception::kGeneral);
}

TEST(Exception, SaysWhatIsUnimplemented) {
  const Exception error(Exception::kUnimplemented);
  EXPECT_STREQ(error.what(), "unimplemented");
  EXPECT_EQ(error.code(), Exception::kUnimplemented);
}

TEST(Exception, CutsNothing) {
  const std::string text(100000, 'x');
  EXPECT_EQ(Exception("%s", text.c_str()).what(), text);
}

TEST(Exception, KeepsItsMessageWhenCopied) {
  const auto made = [] { return Exception("%s", std::string("gone").c_str()); };
  const Exception first = made();
  const Exception second = first;
  EXPECT_STREQ(second.what(), "gone");
}

TEST(Exception, IsCaughtAsAStandardException) {
  try {
    throw Exception("Use Merge() rather than Set()");
  } catch (const std::exception& error) {
    EXPECT_STREQ(error.what(), "Use Merge() rather than Set()");
  }
}

}  // namespace
