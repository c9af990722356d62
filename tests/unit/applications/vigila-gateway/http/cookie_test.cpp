#include "vigila-gateway/http/cookie.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using vigila::gateway::ClearSessionCookie;
using vigila::gateway::FindSessionCookie;
using vigila::gateway::SessionCookie;
using vigila::gateway::SetSessionCookie;

SessionCookie Find(std::string_view header) {
  return FindSessionCookie({header});
}

TEST(Cookie, IsFoundAmongOthers) {
  EXPECT_EQ(Find("vigila_session=0123ABCD").token, "0123ABCD");
  EXPECT_EQ(Find("a=b; vigila_session=0123ABCD; c=d").token, "0123ABCD");
  EXPECT_EQ(Find("a=b;vigila_session = 0123ABCD ;").token, "0123ABCD");
  EXPECT_EQ(Find("vigila_session=\"0123ABCD\"").token, "0123ABCD");
}

TEST(Cookie, IsAbsentWithoutItsExactName) {
  for (const char* header :
       {"", ";", "=", "vigila_session", "xvigila_session=0123ABCD", "vigila_sessionx=0123ABCD",
        "Vigila_Session=0123ABCD", "a=vigila_session=0123ABCD"}) {
    EXPECT_FALSE(Find(header).present) << header;
  }
  EXPECT_FALSE(FindSessionCookie({}).present);
}

TEST(Cookie, IsPresentButWorthNothingWhenItIsNoToken) {
  for (const char* header :
       {"vigila_session=", "vigila_session=0123ABC", "vigila_session=0123ABCDE",
        "vigila_session=0123abcd", "vigila_session=NO_TOKEN", "vigila_session=_EXPIRED",
        "vigila_session=DISABLED", "vigila_session=\"0123ABCD", "vigila_session=0123ABC%"}) {
    EXPECT_TRUE(Find(header).present) << header;
    EXPECT_EQ(Find(header).token, "") << header;
  }
}

TEST(Cookie, LeavesNoneOfTwoThatDiffer) {
  EXPECT_EQ(Find("vigila_session=0123ABCD; vigila_session=0123ABCD").token, "0123ABCD");
  EXPECT_EQ(Find("vigila_session=0123ABCD; vigila_session=0123ABCE").token, "");
  EXPECT_EQ(Find("vigila_session=x; vigila_session=0123ABCD").token, "");
  EXPECT_EQ(FindSessionCookie({"vigila_session=0123ABCD", "vigila_session=0123ABCE"}).token, "");
  EXPECT_EQ(Find("vigila_session=0123ABCD; vigila_session=0123ABCE; vigila_session=0123ABCD").token,
            "");
}

TEST(Cookie, IsNotLookedForBeyondItsBound) {
  EXPECT_FALSE(Find(std::string(8192, ' ') + "vigila_session=0123ABCD").present);
}

TEST(Cookie, GoesToThisSiteOnlyAndToNoScript) {
  EXPECT_EQ(SetSessionCookie("0123ABCD", false),
            "vigila_session=0123ABCD; Path=/; HttpOnly; SameSite=Strict");
  EXPECT_EQ(SetSessionCookie("0123ABCD", true),
            "vigila_session=0123ABCD; Path=/; HttpOnly; SameSite=Strict; Secure");
  EXPECT_EQ(ClearSessionCookie(false),
            "vigila_session=; Max-Age=0; Path=/; HttpOnly; SameSite=Strict");
}

}  // namespace
