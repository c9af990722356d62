#include "vigila-gateway/http/connection_bound.h"

#include <gtest/gtest.h>

namespace {

using vigila::gateway::ConnectionBound;

TEST(AConnectionBound, AdmitsASourceUpToItsLimitAndNoOtherSourceLess) {
  ConnectionBound bound(2);
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(bound.Admits("10.0.0.1"));
    bound.Opened("10.0.0.1");
  }
  EXPECT_FALSE(bound.Admits("10.0.0.1"));
  EXPECT_FALSE(bound.Admits("::ffff:10.0.0.1"));
  EXPECT_TRUE(bound.Admits("10.0.0.2"));
  bound.Closed("10.0.0.1");
  EXPECT_TRUE(bound.Admits("10.0.0.1"));
}

TEST(AConnectionBound, CountsAnIpv6NetworkAsOne) {
  ConnectionBound bound(2);
  bound.Opened("2001:db8::1");
  bound.Opened("2001:db8::2");
  EXPECT_FALSE(bound.Admits("2001:db8::3"));
  EXPECT_TRUE(bound.Admits("2001:db8:0:1::3"));
}

TEST(AConnectionBound, RemembersNoOneWhoHasGone) {
  ConnectionBound bound(2);
  for (const char* address : {"10.0.0.1", "10.0.0.2", "10.0.0.1"}) bound.Opened(address);
  for (const char* address : {"10.0.0.1", "10.0.0.2", "10.0.0.1"}) bound.Closed(address);
  EXPECT_EQ(bound.Sources(), 0u);
  bound.Closed("10.0.0.1");
  EXPECT_EQ(bound.Sources(), 0u);
}

TEST(AConnectionBound, OfNoneAdmitsEveryone) {
  ConnectionBound bound(0);
  for (int i = 0; i < 1000; ++i) bound.Opened("10.0.0.1");
  EXPECT_TRUE(bound.Admits("10.0.0.1"));
}

}  // namespace
