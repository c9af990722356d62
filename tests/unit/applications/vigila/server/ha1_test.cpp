#include "vigila/server/ha1.h"

#include <gtest/gtest.h>

namespace vigila::server {
namespace {

using namespace std::string_view_literals;

TEST(MakeHA1, DigestsNameRealmAndPassword) {
  EXPECT_EQ(MakeHA1("alice", "secret"), "3a503be02c866055123c57328926435e");
}

TEST(MakeHA1, CountsBytesOfAnyValue) {
  EXPECT_EQ(MakeHA1("a\0b"sv, "\xff\0"sv), "f40026cdc7ae2086b207cf4dc8c20aa8");
  EXPECT_EQ(MakeHA1("", ""), "11fbd87be3e317e3495b02fdd0a9bf78");
}

}  // namespace
}  // namespace vigila::server
