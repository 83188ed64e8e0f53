#include "plugins/http_client/text/HostName.hpp"

#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace connectivity::plugins {
namespace {

std::string faultOf(std::string_view host) {
  const char* const fault = faultOfHost(host);
  return fault == nullptr ? "none" : fault;
}

TEST(HostName, IsANameOrAnAddress) {
  for (const char* host :
       {"server.test", "Server.Test.", "localhost", "a_b-c", "127.0.0.1", "::1", "[::1]",
        "fe80::1%lo", "[fe80::1%lo]", "::ffff:127.0.0.1", "b\xC3\xBC"}) {
    EXPECT_EQ(faultOf(host), "none") << host;
  }
}

TEST(HostName, HasNoScheme) {
  for (const char* host :
       {"http://server.test", "https://server.test:8080/x", "://", "x://[::1]"}) {
    EXPECT_EQ(faultOf(host), "must not have a scheme") << host;
  }
}

TEST(HostName, HasNoPort) {
  for (const char* host : {"server.test:8080", "server.test:", "127.0.0.1:1", "[::1]:8080"}) {
    EXPECT_EQ(faultOf(host), "must not have a port, which is an option of its own") << host;
  }
}

TEST(HostName, HasNoBlankAndNoControlCharacter) {
  for (const char* host : {" ", "server.test ", "a b", "a\tb", "a\r\nb", "a\x7F", "a\xC2\x85"}) {
    EXPECT_EQ(faultOf(host), "must not hold blanks or control characters") << host;
  }
  EXPECT_EQ(faultOf(std::string_view("a\0b", 3)), "must not hold blanks or control characters");
}

TEST(HostName, HasNoOtherPartOfAUrl) {
  for (const char* host : {"server.test/x", "server.test?x", "server.test#x", "ada@server.test",
                           "server.test\\x", "/", "[::1]x"}) {
    EXPECT_EQ(faultOf(host), "must be a name or an address alone") << host;
  }
}

TEST(HostName, HoldsAnIpv6AddressBetweenBrackets) {
  for (const char* host : {"[server.test]", "[127.0.0.1]", "[]", "[", "]", "[::1", "::1]",
                           "[[::1]]", "a[::1]", "a::1]", "[::1%]", "[:::1]"}) {
    EXPECT_EQ(faultOf(host), "must hold an IPv6 address between its brackets") << host;
  }
}

TEST(HostName, IsAnIpv6AddressWhereItHasTwoColons) {
  for (const char* host : {"a:b:c", "::g", "server.test::", ":::", "1:2:3"}) {
    EXPECT_EQ(faultOf(host), "must be an IPv6 address where it has two colons or more") << host;
  }
}

TEST(HostName, LosesItsBracketsAndNothingElse) {
  EXPECT_EQ(withoutBrackets("[::1]"), "::1");
  EXPECT_EQ(withoutBrackets("::1"), "::1");
  EXPECT_EQ(withoutBrackets("Server.Test."), "Server.Test.");
  EXPECT_EQ(withoutBrackets(""), "");
}

TEST(HostName, IsVerifiedWithoutTheRootsDot) {
  EXPECT_EQ(verifiedName("Server.test."), "Server.test");
  EXPECT_EQ(verifiedName("server.test"), "server.test");
  EXPECT_EQ(verifiedName("::1"), "::1");
  EXPECT_EQ(verifiedName(""), "");
}

}  // namespace
}  // namespace connectivity::plugins
