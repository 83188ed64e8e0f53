// What goes over the wire for a request message: request line, headers, framing of the body.
#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

// A server that answers everything, and a plug-in that talks to it.
class RequestFormat : public ::testing::Test {
 protected:
  RequestFormat() : _server(&RequestFormat::serve) {}

  Config config() const { return Config(_server.port()); }
  // Performs the request with a plug-in of this configuration; gives what arrived.
  RecordedRequest sent(const Request& request, const Config& configuration) {
    PluginUnderTest plugin(configuration);
    const Answer answer = plugin.request(request);
    EXPECT_EQ(answer.status(), 200) << answer.reason();
    _log = plugin.log().lines();
    return _server.requests().back();
  }
  RecordedRequest sent(const Request& request) { return sent(request, config()); }

  // The log of the last plug-in.
  bool logged(int level, const std::string& text) const {
    return std::ranges::any_of(_log, [&](const LogLine& line) {
      return line.level == level && line.text.ends_with(text);
    });
  }

  ScriptedServer _server;

 private:
  static void serve(Connection& connection) {
    while (connection.readRequest()) connection.sendResponse(200);
  }
  std::vector<LogLine> _log;
};

TEST_F(RequestFormat, HasTheDefaultHeadersAndNoOthers) {
  const auto request = sent(Request("GET", "/x"));
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.target, "/x");
  EXPECT_EQ(request.version, "HTTP/1.1");
  EXPECT_EQ(request.header("host"), "127.0.0.1:" + std::to_string(_server.port()));
  EXPECT_EQ(request.header("accept"), "*/*");
  EXPECT_EQ(request.header("accept-encoding"), "identity, gzip, deflate");
  EXPECT_EQ(request.header("accept-charset"), "utf-8");
  EXPECT_EQ(request.header("user-agent"), "Orrery/10.15 (armv7-debian10)");
  EXPECT_EQ(request.headers.size(), 5U) << request.raw;
}

TEST_F(RequestFormat, UserHeadersWinOverDefaults) {
  const auto request = sent(Request("GET", "/x")
                                .header("Accept", "text/html")
                                .header("accept-ENCODING", "identity")
                                .header("Accept-Charset", "iso-8859-1")
                                .header("User-Agent", "mine")
                                .header("X-Own", "value"));
  EXPECT_EQ(request.header("accept"), "text/html");
  EXPECT_EQ(request.header("accept-encoding"), "identity");
  EXPECT_EQ(request.header("accept-charset"), "iso-8859-1");
  EXPECT_EQ(request.header("user-agent"), "mine");
  EXPECT_EQ(request.header("x-own"), "value");
  EXPECT_EQ(request.headers.size(), 6U) << request.raw;
}

TEST_F(RequestFormat, HeadersThatDifferOnlyInCaseAreReportedAndSentOnce) {
  const auto request =
      sent(Request("GET", "/x").header("Accept", "text/html").header("accept", "text/plain"));
  EXPECT_EQ(request.headerCount("accept"), 1U);
  // Whichever the map gives last keeps its value; the other one is named.
  const bool lowerWon = request.header("accept") == "text/plain";
  EXPECT_TRUE(logged(QOR_LOG_WARN, std::string("Ignoring HTTP header ") +
                                       (lowerWon ? "Accept" : "accept") +
                                       " because it was set multiple times (headers are "
                                       "case-insensitive)"));
}

class TransportsOwnHeader : public RequestFormat,
                            public ::testing::WithParamInterface<const char*> {};

TEST_P(TransportsOwnHeader, GivenByTheUserIsIgnoredAndReported) {
  const auto request = sent(Request("POST", "/x").header(GetParam(), "17").body("12345"));
  EXPECT_EQ(request.body, "12345");
  if (std::string(GetParam()) == "Content-Length") {
    EXPECT_EQ(request.header("content-length"), "5");
    EXPECT_EQ(request.headerCount("content-length"), 1U);
  } else {
    EXPECT_EQ(request.header(GetParam()), std::nullopt);
  }
  EXPECT_TRUE(logged(QOR_LOG_WARN, std::string("Ignoring HTTP header ") + GetParam() +
                                       " because it belongs to the transport"));
}

INSTANTIATE_TEST_SUITE_P(All, TransportsOwnHeader,
                         ::testing::Values("Content-Length", "Transfer-Encoding", "Connection",
                                           "Expect", "Upgrade", "TE", "Trailer"));

TEST_F(RequestFormat, UsersHostHeaderReplacesTheComputedOne) {
  const auto request = sent(Request("GET", "/x").header("Host", "virtual.test"));
  EXPECT_EQ(request.header("host"), "virtual.test");
  EXPECT_EQ(request.headerCount("host"), 1U);
}

TEST_F(RequestFormat, HeaderValuesGoOutInLatin1) {
  const auto request = sent(Request("GET", "/x").header("X-Name", "caf\u00e9\tcr\u00e8me"));
  EXPECT_EQ(request.header("x-name"), "caf\xE9\tcr\xE8me");
}

// --- Authentication and cookies -----------------------------------------------------------------

TEST_F(RequestFormat, BasicCredentialsGoWithEveryRequest) {
  PluginUnderTest plugin(config().basicAuthentication("user", "pa:ss"));
  for (int time = 0; time < 2; ++time) plugin.request(Request("GET", "/x"));
  ASSERT_EQ(_server.requestCount(), 2U);
  // "user:pa:ss"
  EXPECT_EQ(_server.request(0).header("authorization"), "Basic dXNlcjpwYTpzcw==");
  EXPECT_EQ(_server.request(1).header("authorization"), "Basic dXNlcjpwYTpzcw==");
}

TEST_F(RequestFormat, UsersAuthorizationWinsOverBasicCredentials) {
  const auto request = sent(Request("GET", "/x").header("Authorization", "Bearer t"),
                            config().basicAuthentication("user", "pass"));
  EXPECT_EQ(request.header("authorization"), "Bearer t");
  EXPECT_EQ(request.headerCount("authorization"), 1U);
}

TEST_F(RequestFormat, UsersCookieHeaderAndCookiesLeaveInOneLine) {
  const auto request = sent(Request("GET", "/x").header("Cookie", "own=1").cookie("given", "2"));
  EXPECT_EQ(request.headerCount("cookie"), 1U);
  EXPECT_EQ(request.header("cookie"), "own=1; given=2");
}

TEST_F(RequestFormat, SecretsAreHiddenInTheTraceLog) {
  sent(Request("GET", "/x")
           .header("Authorization", "Bearer tell-nobody")
           .cookie("session", "tell-nobody")
           .header("X-Open", "for all"));
  EXPECT_TRUE(logged(QOR_LOG_TRACE, "   request header x-open = for all"));
  EXPECT_TRUE(logged(QOR_LOG_TRACE, "   request header authorization = <hidden>"));
  EXPECT_TRUE(logged(QOR_LOG_TRACE, "   request header Cookie = <hidden>"));
}

TEST_F(RequestFormat, NoSecretIsInAnyLogLine) {
  PluginUnderTest plugin(config().basicAuthentication("user", "tell-nobody"));
  plugin.request(Request("GET", "/x").header("Cookie", "a=tell-nobody"));
  EXPECT_FALSE(plugin.log().contains("tell-nobody"));
  EXPECT_FALSE(plugin.log().contains("dXNlcjp0ZWxsLW5vYm9keQ"));
}

// --- The target ---------------------------------------------------------------------------------

struct TargetCase {
  const char* name;
  const char* basePath;
  const char* path;
  const char* target;
};

std::string nameOf(const ::testing::TestParamInfo<TargetCase>& info) { return info.param.name; }

class RequestTarget : public RequestFormat, public ::testing::WithParamInterface<TargetCase> {};

TEST_P(RequestTarget, GoesOut) {
  const auto& [name, basePath, path, target] = GetParam();
  const auto request = sent(Request("GET", path), config().set("basePath", basePath));
  EXPECT_EQ(request.target, target);
  EXPECT_EQ(request.header("host"), "127.0.0.1:" + std::to_string(_server.port()));
}

INSTANTIATE_TEST_SUITE_P(
    All, RequestTarget,
    ::testing::Values(TargetCase{"BasePathAndPathAsTheyStand", "/base", "/x", "/base/x"},
                      TargetCase{"WithoutASlashBetween", "/base", "x", "/basex"},
                      TargetCase{"WithASlashInFrontWhereThereIsNone", "", "x", "/x"},
                      TargetCase{"EmptyPathAsASlash", "", "", "/"},
                      TargetCase{"PathThatLooksLikeAnotherHostAsAPath", "", "//elsewhere.test/x",
                                 "//elsewhere.test/x"},
                      TargetCase{"PathThatLooksLikeAUrlAsAPath", "", "http://elsewhere.test/x",
                                 "/http://elsewhere.test/x"},
                      TargetCase{"QueryInThePathKept", "", "/x?a=b", "/x?a=b"},
                      TargetCase{"FragmentDropped", "", "/x?a=b#part", "/x?a=b"},
                      TargetCase{"EncodedSlashAsGiven", "", "/a%2Fb", "/a%2Fb"},
                      TargetCase{"ForbiddenCharactersEncoded", "", "/a b\"<>\u00e9",
                                 "/a%20b%22%3C%3E%C3%A9"},
                      TargetCase{"PlainPunctuationAsGiven", "", "/a;b=c,d:e@f!$&'()*+~-._",
                                 "/a;b=c,d:e@f!$&'()*+~-._"}),
    nameOf);

TEST_F(RequestFormat, QueryParametersFollowInAscendingOrderAndEncoded) {
  const auto request =
      sent(Request("GET", "/x?own=1").query("b", "2 3").query("a", "x&y=z+\u00e9").query("c", ""));
  EXPECT_EQ(request.target, "/x?own=1&a=x%26y%3Dz%2B%C3%A9&b=2%203&c=");
}

TEST_F(RequestFormat, ControlCharactersInAQueryAreEncodedAndEscapedInTheLog) {
  const auto request = sent(Request("GET", "/x").query("a", "one\r\ntwo"));
  EXPECT_EQ(request.target, "/x?a=one%0D%0Atwo");
  EXPECT_FALSE(logged(QOR_LOG_TRACE, "one\r\ntwo"));
}

// --- Bodies -------------------------------------------------------------------------------------

TEST_F(RequestFormat, BodiesHaveAContentLength) {
  const std::string bytes("a\0b\r\n\r\n\xFF", 8);
  for (const char* const method : {"POST", "PUT", "GET"}) {
    const auto request = sent(Request(method, "/x").body(bytes));
    EXPECT_EQ(request.body, bytes) << method;
    EXPECT_EQ(request.header("content-length"), "8") << method;
    EXPECT_EQ(request.header("transfer-encoding"), std::nullopt) << method;
    EXPECT_EQ(request.header("content-type"), std::nullopt) << method;
  }
}

TEST_F(RequestFormat, LargeBodiesArriveWhole) {
  std::string bytes(3'000'000, '\0');
  for (std::size_t at = 0; at < bytes.size(); ++at) bytes[at] = static_cast<char>(at % 251);
  EXPECT_EQ(sent(Request("POST", "/x").body(bytes)).body, bytes);
}

TEST_F(RequestFormat, PostAndPutWithoutBodySayLengthZero) {
  for (const char* const method : {"POST", "PUT"}) {
    EXPECT_EQ(sent(Request(method, "/x")).header("content-length"), "0") << method;
    EXPECT_EQ(sent(Request(method, "/x").body("")).header("content-length"), "0") << method;
  }
}

TEST_F(RequestFormat, GetWithoutBodySaysNoLength) {
  EXPECT_EQ(sent(Request("GET", "/x")).header("content-length"), std::nullopt);
  EXPECT_TRUE(logged(QOR_LOG_TRACE, "   request payload: <no payload>"));
}

TEST_F(RequestFormat, PayloadsOfMethodsWithoutBodyAreDroppedWithALine) {
  for (const std::string method : {"HEAD", "DELETE", "TRACE"}) {
    const auto request = sent(Request(method.c_str(), "/x").body("ignored"));
    EXPECT_EQ(request.method, method);
    EXPECT_EQ(request.raw.find("ignored"), std::string::npos);
    EXPECT_EQ(request.header("content-length").value_or("0"), "0");
    EXPECT_TRUE(
        logged(QOR_LOG_WARN, "Ignoring specified payload for " + method + " request method"));
  }
}

TEST_F(RequestFormat, PayloadIsShownAtTraceLevel) {
  sent(Request("POST", "/x").body("visible %s%n"));
  EXPECT_TRUE(logged(QOR_LOG_TRACE, "   request payload: visible %s%n"));
}

// --- Content types ------------------------------------------------------------------------------

struct ContentTypeCase {
  const char* name;
  const char* contentType;
  const char* charset;
  const char* sent;
};

std::string contentTypeName(const ::testing::TestParamInfo<ContentTypeCase>& info) {
  return info.param.name;
}

class ContentType : public RequestFormat, public ::testing::WithParamInterface<ContentTypeCase> {};

TEST_P(ContentType, GoesOut) {
  Request request("POST", "/x");
  request.body("a").contentType(GetParam().contentType);
  if (*GetParam().charset != '\0') request.charset(GetParam().charset);
  const auto recorded = sent(request);
  EXPECT_EQ(recorded.header("content-type"), GetParam().sent);
  EXPECT_EQ(recorded.headerCount("content-type"), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    All, ContentType,
    ::testing::Values(
        ContentTypeCase{"OfTextNamesUtf8", "text/plain", "", "text/plain;charset=utf-8"},
        ContentTypeCase{"OfTextNamesTheCharsetInLowerCase", "text/html", "ISO-8859-1",
                        "text/html;charset=iso-8859-1"},
        ContentTypeCase{"SpellsUtf8WithItsHyphen", "text/plain", "UTF8",
                        "text/plain;charset=utf-8"},
        // Deliberate: the test is a prefix test, whatever the type names already.
        ContentTypeCase{"OfTextNamesACharsetTwiceWhereItHasOne", "text/plain;charset=ascii", "",
                        "text/plain;charset=ascii;charset=utf-8"},
        // The test is one of bytes, too.
        ContentTypeCase{"OfTextInCapitalsIsAsGiven", "Text/Plain", "", "Text/Plain"},
        ContentTypeCase{"OfOtherKindsIsAsGiven", "application/json", "latin1", "application/json"}),
    contentTypeName);

TEST_F(RequestFormat, ContentTypeOfTheMetadataWinsOverTheHeader) {
  const auto request = sent(Request("POST", "/x")
                                .body("a")
                                .contentType("application/json")
                                .header("Content-Type", "application/xml"));
  EXPECT_EQ(request.header("content-type"), "application/json");
  EXPECT_EQ(request.headerCount("content-type"), 1U);
}

TEST_F(RequestFormat, ContentTypeHeaderIsTakenWhereTheMetadataHasNone) {
  const auto request = sent(Request("POST", "/x").body("a").header("Content-Type", "text/csv"));
  EXPECT_EQ(request.header("content-type"), "text/csv");
}

// --- The log ------------------------------------------------------------------------------------

TEST_F(RequestFormat, RequestIsAnnouncedAtDebugLevel) {
  sent(Request("GET", "/x").query("name", "value"));
  EXPECT_TRUE(logged(QOR_LOG_DEBUG, "Handling a request for GET path /x"));
  EXPECT_TRUE(logged(QOR_LOG_TRACE, "   request query name = value"));
}

TEST_F(RequestFormat, TextFromOutsideIsNeverAFormat) {
  sent(Request("GET", "/x").header("X-Format", "%s%n%d").query("%n", "%s"));
  EXPECT_TRUE(logged(QOR_LOG_TRACE, "   request header x-format = %s%n%d"));
  EXPECT_TRUE(logged(QOR_LOG_TRACE, "   request query %n = %s"));
}

}  // namespace
}  // namespace test_support
