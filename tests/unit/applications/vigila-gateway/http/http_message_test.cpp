#include "vigila-gateway/http/http_message.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace {

using vigila::gateway::EqualIgnoringCase;
using vigila::gateway::HttpHeaders;
using vigila::gateway::HttpRequest;
using vigila::gateway::HttpResponse;
using vigila::gateway::TextResponse;
using Values = std::vector<std::string_view>;

HttpRequest RequestWith(const HttpHeaders& headers) {
  HttpRequest request;
  request.headers = headers;
  return request;
}

TEST(HttpRequest, HasTheValuesOfAHeaderInTheOrderSent) {
  const HttpRequest request =
      RequestWith({{"Cookie", "b"}, {"Host", "h"}, {"COOKIE", ""}, {"cookie", "a"}});
  EXPECT_EQ(request.Values("Cookie"), (Values{"b", "", "a"}));
  EXPECT_EQ(request.Values("cOOKIE"), (Values{"b", "", "a"}));
  EXPECT_EQ(request.Values("Cook"), Values{});
  EXPECT_EQ(request.Values("Cookies"), Values{});
  EXPECT_EQ(request.Values(""), Values{});
}

TEST(HttpRequest, HasAnOnlyValueWhenThereIsOne) {
  EXPECT_EQ(RequestWith({{"host", "h"}}).Only("Host"), "h");
  EXPECT_EQ(RequestWith({{"Host", ""}}).Only("Host"), "");
  EXPECT_EQ(RequestWith({}).Only("Host"), "");
}

TEST(HttpRequest, HasNoOnlyValueWhenThereAreTwoEvenIfTheyAreTheSame) {
  EXPECT_EQ(RequestWith({{"Host", "h"}, {"host", "h"}}).Only("Host"), "");
  EXPECT_EQ(RequestWith({{"Host", ""}, {"Host", "h"}}).Only("Host"), "");
}

TEST(HeaderNames, AreTheSameInAnyCase) {
  EXPECT_TRUE(EqualIgnoringCase("", ""));
  EXPECT_TRUE(EqualIgnoringCase("X-Original-URI", "x-original-uri"));
  EXPECT_TRUE(EqualIgnoringCase("AZaz", "azAZ"));
}

TEST(HeaderNames, DifferInAnythingElse) {
  EXPECT_FALSE(EqualIgnoringCase("a", ""));
  EXPECT_FALSE(EqualIgnoringCase("", "a"));
  EXPECT_FALSE(EqualIgnoringCase("a", "ab"));
  EXPECT_FALSE(EqualIgnoringCase("ab", "a"));
  EXPECT_FALSE(EqualIgnoringCase("X-A", "X_A"));
  // Neighbours of the letters, each a letter's distance from another character.
  EXPECT_FALSE(EqualIgnoringCase("@", "`"));
  EXPECT_FALSE(EqualIgnoringCase("[", "{"));
  EXPECT_FALSE(EqualIgnoringCase("\xc4", "\xe4"));
  EXPECT_FALSE(EqualIgnoringCase(std::string_view("a\0b", 3), std::string_view("a\0c", 3)));
}

TEST(HttpResponse, IsGoodAndEmptyAtFirst) {
  const HttpResponse response;
  EXPECT_EQ(response.status, 200);
  EXPECT_TRUE(response.headers.empty());
  EXPECT_EQ(response.body, "");
}

TEST(HttpResponse, OfTextIsOneLine) {
  const HttpResponse response = TextResponse(404, "There is nothing here.");
  EXPECT_EQ(response.status, 404);
  EXPECT_EQ(response.headers, (HttpHeaders{{"Content-Type", "text/plain; charset=utf-8"}}));
  EXPECT_EQ(response.body, "There is nothing here.\n");
}

}  // namespace
