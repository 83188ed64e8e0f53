#include "plugins/http_client/text/HeaderRules.hpp"

#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace connectivity::plugins {
namespace {

// The bytes that, alone between two letters, make a text one that `refuses`.
template <typename Refuses>
std::string refusedBytes(Refuses refuses) {
  std::string refused;
  for (int byte = 0; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    if (refuses(std::string{'a', c, 'b'})) refused.push_back(c);
  }
  return refused;
}

std::string c0AndDel() {
  std::string controls;
  for (char c = 0; c < 0x20; ++c) controls.push_back(c);
  return controls + '\x7F';
}

TEST(Token, HoldsLettersDigitsAndFifteenMarks) {
  EXPECT_TRUE(isToken("!#$%&'*+-.^_`|~09AZaz"));
  EXPECT_EQ(refusedBytes([](const std::string& text) { return isToken(text); }),
            "!#$%&'*+-.0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ^_`abcdefghijklmnopqrstuvwxyz|~");
}

TEST(Token, IsNeverEmpty) { EXPECT_FALSE(isToken("")); }

TEST(ControlCharacters, OfAHeaderAreC0AndDel) {
  EXPECT_EQ(refusedBytes([](const std::string& t) { return hasControlCharacter(t, Tab::Refused); }),
            c0AndDel());
  EXPECT_FALSE(hasControlCharacter("", Tab::Refused));
}

TEST(ControlCharacters, OfAHeaderAreNoTabsWhereATabIsAllowed) {
  EXPECT_FALSE(hasControlCharacter("a\tb", Tab::Allowed));
  EXPECT_TRUE(hasControlCharacter("a\tb", Tab::Refused));
  EXPECT_TRUE(hasControlCharacter("a\t\n", Tab::Allowed));
}

TEST(ControlCharacters, OfAHeaderAreTheC1Ones) {
  for (int second = 0x80; second <= 0xBF; ++second) {
    const std::string text{'a', '\xC2', static_cast<char>(second), 'b'};
    EXPECT_EQ(hasControlCharacter(text, Tab::Allowed), second <= 0x9F) << second;
    EXPECT_EQ(hasControlCharacter(text, Tab::Refused), second <= 0x9F) << second;
  }
}

TEST(ControlCharacters, OfAHeaderAreNoBytesWithinOtherCharacters) {
  EXPECT_FALSE(hasControlCharacter("\xC3\x85", Tab::Refused));          // U+00C5
  EXPECT_FALSE(hasControlCharacter("\xE2\x82\x85", Tab::Refused));      // U+2085
  EXPECT_FALSE(hasControlCharacter("\xF0\x9F\x98\x80", Tab::Refused));  // U+1F600
  EXPECT_FALSE(hasControlCharacter("a\xC2", Tab::Refused));
}

TEST(ControlCharacters, OfAMethodOrPathAreC0AndDelAlone) {
  EXPECT_EQ(refusedBytes(hasAsciiControlCharacter), c0AndDel());
  EXPECT_FALSE(hasAsciiControlCharacter("/a\xC2\x85"));
}

TEST(HeaderNames, OfTheTransportAreTheUsersToGiveInVain) {
  for (const char* name : {"content-length", "transfer-encoding", "connection", "proxy-connection",
                           "expect", "upgrade", "te", "trailer"}) {
    EXPECT_TRUE(belongsToTransport(name)) << name;
  }
  for (const char* name : {"", "content-type", "host", "proxy-authorization", "keep-alive", "t"}) {
    EXPECT_FALSE(belongsToTransport(name)) << name;
  }
}

TEST(HeaderNames, OfSecretsCountInAnyCase) {
  for (const char* name : {"authorization", "Authorization", "PROXY-AUTHORIZATION", "Cookie"}) {
    EXPECT_TRUE(isSecret(name)) << name;
  }
  for (const char* name : {"", "host", "cookie2", "set-cookie"}) EXPECT_FALSE(isSecret(name));
}

// What is meant for a proxy stays with the proxy, wherever the request is led.
TEST(HeaderNames, ForTheConfiguredServerAloneAreNotThoseOfAProxy) {
  for (const char* name : {"authorization", "cookie", "host"}) {
    EXPECT_TRUE(isForConfiguredServerOnly(name)) << name;
  }
  for (const char* name : {"proxy-authorization", "accept", ""}) {
    EXPECT_FALSE(isForConfiguredServerOnly(name)) << name;
  }
}

}  // namespace
}  // namespace connectivity::plugins
