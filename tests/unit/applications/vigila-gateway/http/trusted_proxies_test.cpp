#include "vigila-gateway/http/trusted_proxies.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>

namespace vigila::gateway {
namespace {

HttpRequest From(const std::string& peer, HttpHeaders headers = {}) {
  HttpRequest request;
  request.peer = peer;
  request.headers = std::move(headers);
  return request;
}

TEST(TrustedProxies, TrustThisMachineInEverySpelling) {
  const TrustedProxies proxies({});
  for (const char* peer : {"127.0.0.1", "127.255.255.254", "::1", "0:0:0:0:0:0:0:1",
                           "::ffff:127.0.0.1", "::ffff:7f00:1"}) {
    EXPECT_TRUE(proxies.Trusts(peer)) << peer;
  }
}

TEST(TrustedProxies, NameTheGivenAddressesAndNotThisMachine) {
  const TrustedProxies proxies({"10.0.0.9", "127.0.0.2"});
  for (const char* peer : {"10.0.0.9", "::ffff:10.0.0.9", "127.0.0.2"}) {
    EXPECT_TRUE(proxies.Names(peer)) << peer;
  }
  for (const char* peer : {"127.0.0.1", "::1", "10.0.0.90", ""}) {
    EXPECT_FALSE(proxies.Names(peer)) << peer;
  }
}

TEST(TrustedProxies, TrustNoOneElseByThemselves) {
  const TrustedProxies proxies({});
  for (const char* peer : {"128.0.0.1", "10.0.0.1", "::2", "::", "0.0.0.0", "fe80::1",
                           "::ffff:10.0.0.1", "", "127.0.0.1.example", "127.1", "localhost"}) {
    EXPECT_FALSE(proxies.Trusts(peer)) << peer;
  }
}

TEST(TrustedProxies, TrustTheGivenAddressesInEverySpelling) {
  const TrustedProxies proxies({"10.0.0.9", "2001:DB8:0:0:0:0:0:1"});
  for (const char* peer : {"10.0.0.9", "::ffff:10.0.0.9", "2001:db8::1"}) {
    EXPECT_TRUE(proxies.Trusts(peer)) << peer;
  }
  for (const char* peer : {"10.0.0.90", "10.0.0.8", "2001:db8::2"}) {
    EXPECT_FALSE(proxies.Trusts(peer)) << peer;
  }
}

TEST(TrustedProxies, AreAddressesAndNothingElse) {
  for (const char* text : {"", "proxy.example", "10.0.0.0/8", "10.0.0.9:80", "[::1]", " 10.0.0.9",
                           "10.0.0.256", "fe80::1%eth0"}) {
    EXPECT_THROW(TrustedProxies({text}), std::invalid_argument) << text;
  }
}

TEST(TrustedProxies, HaveTheirWordAboutTheSourceTaken) {
  const TrustedProxies proxies({"10.0.0.9"});
  EXPECT_EQ(proxies.SourceOf(From("10.0.0.9", {{"X-Real-IP", "192.0.2.1"}})), "192.0.2.1");
  EXPECT_EQ(proxies.SourceOf(From("10.0.0.9", {{"X-Forwarded-For", "192.0.2.1"}})), "192.0.2.1");
  EXPECT_EQ(proxies.SourceOf(From("10.0.0.9", {{"x-real-ip", "2001:DB8::1"}})), "2001:db8::1");
  EXPECT_EQ(proxies.SourceOf(From("10.0.0.9")), "10.0.0.9");
}

TEST(TrustedProxies, AddTheLastOfTheForwardedAddressesThemselves) {
  const TrustedProxies proxies({});
  const HttpHeaders headers = {{"X-Forwarded-For", "192.0.2.66, 192.0.2.1 \t"}};
  EXPECT_EQ(proxies.SourceOf(From("127.0.0.1", headers)), "192.0.2.1");
}

TEST(TrustedProxies, LeaveASourceThatSaysNothingUsableAsItIs) {
  const TrustedProxies proxies({});
  for (const char* said : {"", ",", "unknown", "192.0.2.1,", "192.0.2.1:80", "_hidden"}) {
    EXPECT_EQ(proxies.SourceOf(From("127.0.0.1", {{"X-Forwarded-For", said}})), "127.0.0.1")
        << said;
    EXPECT_EQ(proxies.SourceOf(From("127.0.0.1", {{"X-Real-IP", said}})), "127.0.0.1") << said;
  }
  // Two of them are two meanings; the other header still has one.
  const HttpHeaders twice = {{"X-Real-IP", "192.0.2.1"}, {"X-Real-IP", "192.0.2.2"}};
  EXPECT_EQ(proxies.SourceOf(From("127.0.0.1", twice)), "127.0.0.1");
}

TEST(TrustedProxies, AreNotWhoeverSaysSo) {
  const TrustedProxies proxies({"10.0.0.9"});
  const HttpHeaders claims = {{"X-Real-IP", "127.0.0.1"}, {"X-Forwarded-For", "127.0.0.1"}};
  EXPECT_EQ(proxies.SourceOf(From("192.0.2.66", claims)), "192.0.2.66");
}

}  // namespace
}  // namespace vigila::gateway
