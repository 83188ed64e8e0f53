#include "plugins/http_client/wire/Route.hpp"

#include <Poco/Net/Context.h>
#include <gtest/gtest.h>

namespace connectivity::plugins {
namespace {

Poco::Net::Context::Ptr tls() {
  return new Poco::Net::Context(Poco::Net::Context::TLS_CLIENT_USE, "");
}

Route route(Poco::Net::Context::Ptr context, std::optional<Proxy> proxy) {
  Route result;
  result.tls = std::move(context);
  result.proxy = std::move(proxy);
  return result;
}

TEST(Route, IsSecureWhereThereIsAContext) {
  EXPECT_FALSE(Route().secure());
  EXPECT_FALSE(route(nullptr, Proxy()).secure());
  EXPECT_TRUE(route(tls(), {}).secure());
  EXPECT_TRUE(route(tls(), Proxy()).secure());
}

TEST(Route, IsTunnelledWhereItIsSecureAndHasAProxy) {
  EXPECT_FALSE(Route().tunnelled());
  EXPECT_FALSE(route(nullptr, Proxy()).tunnelled());
  EXPECT_FALSE(route(tls(), {}).tunnelled());
  EXPECT_TRUE(route(tls(), Proxy()).tunnelled());
}

TEST(Authority, IsHostAndPort) {
  EXPECT_EQ(authority("example.org", 443), "example.org:443");
  EXPECT_EQ(authority("Example.ORG.", 8080), "Example.ORG.:8080");
  EXPECT_EQ(authority("127.0.0.1", 0), "127.0.0.1:0");
  EXPECT_EQ(authority("squid", 65535), "squid:65535");
}

TEST(Authority, HasBracketsAroundAnIPv6Address) {
  EXPECT_EQ(authority("::1", 80), "[::1]:80");
  EXPECT_EQ(authority("2001:db8::7", 443), "[2001:db8::7]:443");
  EXPECT_EQ(authority("fe80::1%eth0", 1), "[fe80::1%eth0]:1");
}

}  // namespace
}  // namespace connectivity::plugins
