// Characters that cannot go out in a header, and those of a path that go out encoded.
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Expectations.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

Request get() { return {"GET", "/x"}; }

// A place of a request that a character can stand in, and how an error names it.
struct Place {
  const char* name;
  std::function<Request(const std::string&)> request;
  const char* item;
};

std::string nameOf(const ::testing::TestParamInfo<Place>& info) { return info.param.name; }

class HeaderCharacter : public ::testing::TestWithParam<Place> {
 protected:
  Answer askWith(const std::string& text) {
    return _plugin.request(GetParam().request("a" + text + "b"));
  }
  std::string item() const { return GetParam().item; }
  ScriptedServer& server() { return _server; }

 private:
  ScriptedServer _server{answerWithTarget};
  PluginUnderTest _plugin{Config(_server.port())};
};

INSTANTIATE_TEST_SUITE_P(
    Of, HeaderCharacter,
    ::testing::Values(
        Place{"AHeader", [](const std::string& text) { return get().header("X-A", text); },
              "http.headers.X-A"},
        Place{"ACookieHeader", [](const std::string& text) { return get().header("Cookie", text); },
              "http.headers.Cookie"},
        Place{"ACookie", [](const std::string& text) { return get().cookie("c", text); },
              "http.cookies.c"},
        Place{"AContentType",
              [](const std::string& text) { return get().contentType("text/" + text); },
              "http.contentType"},
        Place{"ACharset",
              [](const std::string& text) { return get().contentType("text/plain").charset(text); },
              "http.charset"}),
    nameOf);

TEST_P(HeaderCharacter, ThatLatin1LacksIsRefused) {
  for (const char* const character : {"\u0100", "\u20ac", "\u65e5", "\U0001F600", "\uFFFD"}) {
    expectError(askWith(character), item() + " holds a character that ISO-8859-1 lacks");
  }
  EXPECT_EQ(server().connectionCount(), 0U);
}

// Format characters, variation selectors and the like, which a converter may leave out in silence:
// a zero-width space, joiners and direction marks, a word joiner, a byte-order mark, selectors, a
// language tag, a Hangul filler.
TEST_P(HeaderCharacter, ThatNobodySeesIsRefusedLikeAnyOther) {
  for (const char* const character :
       {"\u200B", "\u200D", "\u200E", "\u202E", "\u2060", "\uFEFF", "\uFE0F", "\uFE00",
        "\U000E0001", "\U000E0100", "\u3164", "\u034F", "\u180E"}) {
    expectError(askWith(character), item() + " holds a character that ISO-8859-1 lacks");
  }
  EXPECT_EQ(server().connectionCount(), 0U);
}

TEST_P(HeaderCharacter, OfTheUpperControlsIsRefused) {
  for (const char* const character : {"\u0080", "\u0085", "\u0090", "\u009F"}) {
    expectError(askWith(character), item() + " must not hold control characters");
  }
  EXPECT_EQ(server().connectionCount(), 0U);
}

TEST_P(HeaderCharacter, ThatLatin1HasIsSent) {
  // The soft hyphen is a format character, and Latin-1 has it.
  for (const char* const character : {"\u00A0", "\u00AD", "\u00E4", "\u00FF"}) {
    const Answer answer = askWith(character);
    EXPECT_EQ(answer.status(), 200) << answer.reason();
    const std::string latin1 = {
        'a', static_cast<char>(character[0] == '\xC2' ? character[1] : character[1] + 0x40), 'b'};
    EXPECT_NE(lastRequest(server()).raw.find(latin1), std::string::npos);
  }
}

// --- Names --------------------------------------------------------------------------------------

TEST(CookieName, ThatHoldsSuchACharacterIsNamed) {
  ScriptedServer server(answerWithTarget);
  PluginUnderTest plugin{Config(server.port())};
  for (const std::string name : {"a\u200Bb", "a\uFEFF", "a\uFE0F", "a\u0085b", "a\u20ac"}) {
    expectErrorNaming(plugin.request(get().cookie(name, "v")), "http.cookies." + name);
  }
  EXPECT_EQ(server.connectionCount(), 0U);
}

// --- Paths and queries --------------------------------------------------------------------------

class TargetCharacter : public ::testing::Test {
 protected:
  std::string sent(const Request& request) {
    const Answer answer = _plugin.request(request);
    EXPECT_EQ(answer.status(), 200) << answer.reason();
    return answer.status() == 200 ? lastRequest(_server).target : answer.reason();
  }

 private:
  ScriptedServer _server{answerWithTarget};
  PluginUnderTest _plugin{Config(_server.port())};
};

TEST_F(TargetCharacter, OfTheUpperControlsIsEncodedInAPath) {
  EXPECT_EQ(sent(Request("GET", "/a\u0085b")), "/a%C2%85b");
  EXPECT_EQ(sent(Request("GET", "/\u0080\u009F")), "/%C2%80%C2%9F");
}

TEST_F(TargetCharacter, OfTheUpperControlsIsEncodedInAQuery) {
  EXPECT_EQ(sent(Request("GET", "/x?q=\u0085")), "/x?q=%C2%85");
  EXPECT_EQ(sent(get().query("q\u0085", "\u0085")), "/x?q%C2%85=%C2%85");
}

TEST_F(TargetCharacter, BeyondLatin1IsEncodedToo) {
  EXPECT_EQ(sent(Request("GET", "/\u20ac\u200B")), "/%E2%82%AC%E2%80%8B");
  EXPECT_EQ(sent(get().query("q", "\uFEFF")), "/x?q=%EF%BB%BF");
}

}  // namespace
}  // namespace test_support
