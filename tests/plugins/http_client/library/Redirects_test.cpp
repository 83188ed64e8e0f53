// Redirects that stay at the server: which are followed, what goes out the second time, where to,
// and when it ends.
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Coders.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

constexpr const char* tooMany = "Maximum redirects exceeded";
constexpr const char* retryLine = "processing a request, will retry once: ";

HeaderList to(const std::string& location) { return {{"Location", location}}; }

// A server that answers by path. However a test's requests fare, each gets exactly one answer.
class Redirects : public ::testing::Test {
 protected:
  explicit Redirects(const Config& more = Config()) {
    _plugin = std::make_unique<PluginUnderTest>(
        Config(more).host("127.0.0.1").port(_server.port()).numClients(1));
    _server.answer("/to", {200, {}, "arrived"});
  }
  void TearDown() override {
    EXPECT_EQ(_plugin->shutdown(), 0);
    EXPECT_EQ(_plugin->answerCount(), _asked);
  }

  Answer ask(const Request& request) {
    ++_asked;
    return _plugin->request(request);
  }
  void redirect(const std::string& from, int status, const std::string& location) {
    _server.answer(from, {status, to(location), "moved"});
  }
  std::vector<std::string> targets() const {
    const std::vector<RecordedRequest> requests = _server.requests();
    std::vector<std::string> all;
    all.reserve(requests.size());
    for (const auto& request : requests) all.push_back(request.target);
    return all;
  }
  ScriptedServer& server() { return _server; }
  PluginUnderTest& plugin() { return *_plugin; }
  LogDouble& log() { return _plugin->log(); }

 private:
  ScriptedServer _server;
  std::unique_ptr<PluginUnderTest> _plugin;
  std::size_t _asked = 0;
};

using Targets = std::vector<std::string>;

// --- Method and body the second time ------------------------------------------------------------

struct FollowUp {
  int status;
  const char* method;
  const char* secondMethod;
  bool bodyGoes;  // what the request had of a body goes out again
};

std::string followUpName(const ::testing::TestParamInfo<FollowUp>& info) {
  return info.param.method + std::to_string(info.param.status);
}

class RedirectFollowUp : public Redirects, public ::testing::WithParamInterface<FollowUp> {
 protected:
  static Request asGiven() {
    Request request(GetParam().method, "/from");
    request.id(77).header("X-Kept", "kept").contentType("text/csv");
    if (hasBody()) request.body("a,b");
    return request;
  }
  static bool hasBody() {
    const std::string method = GetParam().method;
    return method == "POST" || method == "PUT";
  }
};

TEST_P(RedirectFollowUp, HasTheMethodAndTheBodyThatTheStatusCallsFor) {
  redirect("/from", GetParam().status, "/to");
  const Answer answer = ask(asGiven());
  EXPECT_EQ(answer.status(), 200) << answer.reason();
  EXPECT_EQ(answer.body(), std::string(GetParam().method) == "HEAD" ? "" : "arrived");
  ASSERT_EQ(targets(), (Targets{"/from", "/to"}));

  const RecordedRequest second = server().request(1);
  EXPECT_EQ(second.method, GetParam().secondMethod);
  EXPECT_EQ(second.header("x-kept"), "kept");
  EXPECT_EQ(second.body, GetParam().bodyGoes ? "a,b" : "");
  const bool dropped = hasBody() && !GetParam().bodyGoes;
  if (dropped) {
    EXPECT_EQ(second.header("content-type"), std::nullopt);
    EXPECT_EQ(second.header("content-length"), std::nullopt);
  }
  EXPECT_EQ(second.header("transfer-encoding"), std::nullopt);
  EXPECT_EQ(server().connectionCount(), 1U);
}

TEST_P(RedirectFollowUp, IsAnsweredWithTheRequestsOwnMethodPathAndId) {
  redirect("/from", GetParam().status, "/to");
  const Answer answer = ask(asGiven());
  EXPECT_EQ(answer.text("http/method"), GetParam().method);
  EXPECT_EQ(answer.text("http/path"), "/from");
  EXPECT_EQ(answer.id(), 77);
  EXPECT_EQ(answer.header("location"), std::nullopt);
  EXPECT_EQ(plugin().statusItem(".status"), "ONLINE");
}

INSTANTIATE_TEST_SUITE_P(
    All, RedirectFollowUp,
    ::testing::Values(FollowUp{301, "GET", "GET", false}, FollowUp{301, "POST", "GET", false},
                      FollowUp{301, "PUT", "PUT", true}, FollowUp{301, "DELETE", "DELETE", false},
                      FollowUp{301, "HEAD", "HEAD", false}, FollowUp{301, "TRACE", "TRACE", false},
                      FollowUp{302, "GET", "GET", false}, FollowUp{302, "POST", "GET", false},
                      FollowUp{302, "PUT", "PUT", true}, FollowUp{302, "DELETE", "DELETE", false},
                      FollowUp{302, "HEAD", "HEAD", false}, FollowUp{302, "TRACE", "TRACE", false},
                      FollowUp{303, "GET", "GET", false}, FollowUp{303, "POST", "GET", false},
                      FollowUp{303, "PUT", "GET", false}, FollowUp{303, "DELETE", "GET", false},
                      FollowUp{303, "HEAD", "HEAD", false}, FollowUp{303, "TRACE", "GET", false},
                      FollowUp{307, "GET", "GET", false}, FollowUp{307, "POST", "POST", true},
                      FollowUp{307, "PUT", "PUT", true}, FollowUp{307, "DELETE", "DELETE", false},
                      FollowUp{307, "HEAD", "HEAD", false}, FollowUp{307, "TRACE", "TRACE", false},
                      FollowUp{308, "GET", "GET", false}, FollowUp{308, "POST", "POST", true},
                      FollowUp{308, "PUT", "PUT", true}, FollowUp{308, "DELETE", "DELETE", false},
                      FollowUp{308, "HEAD", "HEAD", false}, FollowUp{308, "TRACE", "TRACE", false}),
    followUpName);

TEST_F(Redirects, ThatDropABodyDropItsCodingToo) {
  redirect("/from", 303, "/to");
  ask(Request("POST", "/from").body(std::string(500, 'x')).header("Content-Encoding", "gzip"));
  EXPECT_EQ(server().request(0).header("content-encoding"), "gzip");
  EXPECT_EQ(server().request(1).header("content-encoding"), std::nullopt);
  EXPECT_EQ(server().request(1).body, "");
}

TEST_F(Redirects, ThatKeepABodySendItCodedAgain) {
  redirect("/from", 307, "/to");
  ask(Request("POST", "/from").body(std::string(500, 'x')).header("Content-Encoding", "gzip"));
  EXPECT_EQ(server().request(1).header("content-encoding"), "gzip");
  EXPECT_EQ(server().request(1).body, server().request(0).body);
}

TEST_F(Redirects, ThatDropABodyDropTheFormToo) {
  redirect("/from", 302, "/to");
  EXPECT_EQ(ask(Request("POST", "/from").form().field("a", "b")).status(), 200);
  EXPECT_EQ(server().request(0).body, "a=b");
  EXPECT_EQ(server().request(1).method, "GET");
  EXPECT_EQ(server().request(1).target, "/to");
  EXPECT_EQ(server().request(1).header("content-type"), std::nullopt);
  EXPECT_EQ(server().request(1).body, "");
}

TEST_F(Redirects, ThatKeepABodySendTheFormAgain) {
  redirect("/from", 308, "/to");
  EXPECT_EQ(ask(Request("POST", "/from").form().field("a", "b").file("f", "bytes")).status(), 200);
  const RecordedRequest second = server().request(1);
  EXPECT_EQ(second.method, "POST");
  EXPECT_TRUE(second.header("content-type").value_or("").starts_with("multipart/form-data;"));
  EXPECT_NE(second.body.find("bytes"), std::string::npos);
}

TEST_F(Redirects, OfAFormUnderGetLeaveItsFieldsBehind) {
  redirect("/from", 302, "/to?own=1");
  EXPECT_EQ(ask(Request("GET", "/from").form().field("a", "b")).status(), 200);
  EXPECT_EQ(targets(), (Targets{"/from?a=b", "/to?own=1"}));
}

TEST_F(Redirects, LeaveTheQueryParametersBehind) {
  redirect("/from", 307, "/to");
  ask(Request("GET", "/from").query("a", "b"));
  EXPECT_EQ(targets(), (Targets{"/from?a=b", "/to"}));
}

TEST_F(Redirects, OfAPutTurnedIntoGetStayAGet) {
  redirect("/from", 303, "/again");
  redirect("/again", 307, "/to");
  ask(Request("PUT", "/from").body("x"));
  EXPECT_EQ(server().request(2).method, "GET");
  EXPECT_EQ(server().request(2).body, "");
}

// --- Where to -----------------------------------------------------------------------------------

struct Place {
  const char* name;
  std::string location;  // "PORT" stands for the server's port
  std::string target;
};

std::string placeName(const ::testing::TestParamInfo<Place>& info) { return info.param.name; }

std::string withPort(std::string text, int port) {
  const auto at = text.find("PORT");
  return at == std::string::npos ? text : text.replace(at, 4, std::to_string(port));
}

class RedirectLocation : public Redirects, public ::testing::WithParamInterface<Place> {};

TEST_P(RedirectLocation, IsResolvedAgainstTheRequest) {
  const std::string& target = GetParam().target;
  const std::string location = withPort(GetParam().location, server().port());
  server().answer("/a/b/c", {302, to(location), ""});
  server().answer(target.substr(0, target.find('?')), {200, {}, "there"});
  const Answer answer = ask(Request("GET", "/a/b/c?q=1"));
  EXPECT_EQ(answer.body(), "there") << answer.reason();
  EXPECT_EQ(targets(), (Targets{"/a/b/c?q=1", target}));
  EXPECT_EQ(server().connectionCount(), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    All, RedirectLocation,
    ::testing::Values(Place{"FromTheRoot", "/x", "/x"}, Place{"Relative", "x", "/a/b/x"},
                      Place{"OneUp", "../x", "/a/x"}, Place{"Here", "./", "/a/b/"},
                      Place{"BeyondTheRoot", "/../../x", "/x"},
                      Place{"OnlyAQuery", "?r=2", "/a/b/c?r=2"},
                      Place{"WithoutScheme", "//127.0.0.1:PORT/x", "/x"},
                      Place{"Absolute", "http://127.0.0.1:PORT/x?y=z", "/x?y=z"},
                      Place{"SchemeInCapitals", "HTTP://127.0.0.1:PORT/x", "/x"},
                      Place{"WithUserInformation", "http://u:p@127.0.0.1:PORT/x", "/x"},
                      Place{"WithoutPath", "http://127.0.0.1:PORT", "/"},
                      Place{"QueryWithoutPath", "http://127.0.0.1:PORT?y=z", "/?y=z"},
                      Place{"WithFragment", "/x?y#z", "/x?y"},
                      Place{"PercentEncoded", "/x%2Fy%20z?a%26b", "/x%2Fy%20z?a%26b"},
                      Place{"WithASpaceInside", "/x y", "/x%20y"},
                      Place{"WithSpacesAround", "  /x  ", "/x"},
                      Place{"WithBytesBeyondAscii", "/\xC3\xA9", "/%C3%A9"}),
    placeName);

TEST_F(Redirects, ResolveEachLocationAgainstTheLatestTarget) {
  redirect("/from", 302, "/deep/er/x");
  redirect("/deep/er/x", 302, "y");
  server().answer("/deep/er/y", {200, {}, "there"});
  EXPECT_EQ(ask(Request("GET", "/from")).body(), "there");
}

TEST_F(Redirects, WithAnEmptyLocationAskForTheSameAgain) {
  redirect("/from", 302, "");
  server().answer("/from", {200, {}, "now"});
  EXPECT_EQ(ask(Request("GET", "/from?q=1")).body(), "now");
  EXPECT_EQ(targets(), (Targets{"/from?q=1", "/from?q=1"}));
}

class RedirectsBelowABasePath : public Redirects {
 protected:
  RedirectsBelowABasePath() : Redirects(Config().set("basePath", "/base")) {}
};

TEST_F(RedirectsBelowABasePath, StandForThemselves) {
  redirect("/base/from", 302, "/to");
  const Answer answer = ask(Request("GET", "/from"));
  EXPECT_EQ(answer.body(), "arrived");
  EXPECT_EQ(answer.text("http/path"), "/from");
}

class MalformedLocation : public Redirects, public ::testing::WithParamInterface<Place> {};

TEST_P(MalformedLocation, IsAFailureThatNamesIt) {
  const std::string location = withPort(GetParam().location, server().port());
  redirect("/from", 301, location);
  const Answer answer = ask(Request("GET", "/from").id(5));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_TRUE(answer.reason().starts_with("Invalid Location header (")) << answer.reason();
  EXPECT_TRUE(answer.reason().ends_with("): " + location)) << answer.reason();
  EXPECT_EQ(answer.body(), answer.reason());
  EXPECT_EQ(answer.id(), 5);
  EXPECT_TRUE(answer.isError());
  EXPECT_TRUE(log().contains("Failed to perform HTTP redirect: " + answer.reason()));
  EXPECT_EQ(plugin().statusItem(".status"), "FAILED");
  EXPECT_EQ(ask(Request("GET", "/to")).body(), "arrived");
  EXPECT_EQ(server().connectionCount(), 1U);
}

INSTANTIATE_TEST_SUITE_P(All, MalformedLocation,
                         ::testing::Values(Place{"OpenBracket", "http://[::1/x", ""},
                                           Place{"PortTooLarge", "http://127.0.0.1:65536/x", ""},
                                           Place{"PortIsText", "http://127.0.0.1:port/x", ""},
                                           Place{"PortZero", "http://127.0.0.1:0/x", ""},
                                           Place{"NoHost", "http:///x", ""},
                                           Place{"BrokenEscape", "/%zz", ""},
                                           Place{"BrokenEscapeInQuery", "/x?%4", ""},
                                           Place{"MalformedHost", "//a\"b/x", ""}),
                         placeName);

// --- Not followed -------------------------------------------------------------------------------

TEST_F(Redirects, WithoutLocationAreDeliveredAsTheyAre) {
  for (const int status : {301, 302, 303, 307, 308}) {
    const std::string path = "/" + std::to_string(status);
    server().answer(path, {status, {{"X-A", "b"}}, "nowhere"});
    const Answer answer = ask(Request("GET", path.c_str()).id("seven"));
    EXPECT_EQ(answer.status(), status);
    EXPECT_EQ(answer.body(), "nowhere");
    EXPECT_EQ(answer.header("x-a"), "b");
    EXPECT_FALSE(answer.isError());
    const auto line = log().find(
        "Ignored HTTP redirect: No location header specified in redirect "
        "for Id seven ,status " +
        std::to_string(status));
    ASSERT_TRUE(line.has_value()) << status;
    EXPECT_EQ(line->level, QOR_LOG_WARN);
  }
  EXPECT_EQ(plugin().statusItem(".status"), "ONLINE");
}

TEST_F(Redirects, OfOtherStatusesAreNone) {
  for (const int status : {201, 300, 304, 305, 306, 399, 404}) {
    const std::string path = "/" + std::to_string(status);
    server().answer(path, {status, to("/to"), ""});
    const Answer answer = ask(Request("GET", path.c_str()));
    EXPECT_EQ(answer.status(), status);
    EXPECT_EQ(answer.header("location"), "/to");
  }
  EXPECT_FALSE(log().contains("Received Redirect request"));
}

TEST_F(Redirects, ToAnotherSchemeAreDeliveredAsTheyAre) {
  for (const int status : {301, 302, 303, 307, 308}) {
    const std::string path = "/" + std::to_string(status);
    const std::string location = "https://127.0.0.1:" + std::to_string(server().port()) + "/to";
    redirect(path, status, location);
    const Answer answer = ask(Request("GET", path.c_str()).id(9));
    EXPECT_EQ(answer.status(), status);
    EXPECT_EQ(answer.body(), "moved");
    EXPECT_EQ(answer.header("location"), location);
    const auto line = log().find("Ignored HTTP redirect: Id 9, status " + std::to_string(status) +
                                 ", it redirects to different schema, from http to https and "
                                 "LocationURI " +
                                 location);
    ASSERT_TRUE(line.has_value()) << status;
    EXPECT_EQ(line->level, QOR_LOG_WARN);
  }
  EXPECT_EQ(server().requestCount(), 5U);
}

TEST_F(Redirects, ToSchemesOfOtherKindsAreDeliveredAsTheyAre) {
  redirect("/mail", 301, "mailto:somebody@example.test");
  redirect("/ftp", 301, "ftp://127.0.0.1/x");
  EXPECT_EQ(ask(Request("GET", "/mail")).status(), 301);
  EXPECT_EQ(ask(Request("GET", "/ftp")).status(), 301);
  EXPECT_EQ(server().requestCount(), 2U);
}

class RedirectsSwitchedOff : public Redirects {
 protected:
  RedirectsSwitchedOff() : Redirects(Config().set("followRedirects", false)) {}
};

TEST_F(RedirectsSwitchedOff, AreDeliveredAsTheyAre) {
  for (const int status : {301, 302, 303, 307, 308}) {
    const std::string path = "/" + std::to_string(status);
    redirect(path, status, "/to");
    const Answer answer = ask(Request("GET", path.c_str()));
    EXPECT_EQ(answer.status(), status);
    EXPECT_EQ(answer.header("location"), "/to");
    EXPECT_EQ(answer.body(), "moved");
  }
  EXPECT_EQ(server().requestCount(), 5U);
  EXPECT_FALSE(log().contains("edirect request"));
}

// --- How many -----------------------------------------------------------------------------------

TEST_F(Redirects, AreFollowedNineTimes) {
  for (int step = 0; step < 9; ++step) {
    redirect("/" + std::to_string(step), 302, "/" + std::to_string(step + 1));
  }
  server().answer("/9", {200, {}, "there"});
  EXPECT_EQ(ask(Request("GET", "/0")).body(), "there");
  EXPECT_EQ(server().requestCount(), 10U);
  EXPECT_EQ(log().count("Received Redirect request"), 9U);
}

TEST_F(Redirects, OfTheTenthTimeFailTheRequest) {
  for (int step = 0; step < 10; ++step) {
    redirect("/" + std::to_string(step), 302, "/" + std::to_string(step + 1));
  }
  const Answer answer = ask(Request("POST", "/0").id(3).body("x"));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_EQ(answer.reason(), tooMany);
  EXPECT_EQ(answer.body(), tooMany);
  EXPECT_EQ(answer.id(), 3);
  EXPECT_EQ(answer.text("http/method"), "POST");
  EXPECT_EQ(answer.text("http/path"), "/0");
  EXPECT_TRUE(answer.isError());
  EXPECT_EQ(server().requestCount(), 10U);
  EXPECT_EQ(log().count("Received Redirect request"), 9U) << "nothing is logged before the check";
  const auto line = log().find(std::string("Failed to perform HTTP redirect: ") + tooMany);
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->level, QOR_LOG_WARN);
  EXPECT_EQ(plugin().statusItem(".status"), "FAILED");
}

TEST_F(Redirects, InALoopFailAndTheNextRequestStartsAfresh) {
  redirect("/a", 301, "/b");
  redirect("/b", 308, "/a");
  for (std::size_t round = 1; round <= 2; ++round) {
    EXPECT_EQ(ask(Request("GET", "/a")).reason(), tooMany);
    EXPECT_EQ(server().requestCount(), 10 * round);
  }
  EXPECT_EQ(ask(Request("GET", "/to")).body(), "arrived");
  EXPECT_EQ(plugin().statusItem(".status"), "ONLINE");
  EXPECT_EQ(server().connectionCount(), 1U);
}

TEST_F(Redirects, OfTheTenthTimeFailEvenWithoutALocation) {
  for (int step = 0; step < 9; ++step) {
    redirect("/" + std::to_string(step), 302, "/" + std::to_string(step + 1));
  }
  server().answer("/9", {302, {}, ""});
  EXPECT_EQ(ask(Request("GET", "/0")).reason(), tooMany);
}

// --- What is logged -----------------------------------------------------------------------------

TEST_F(Redirects, AreLoggedStepByStep) {
  redirect("/from", 302, "to?x=1");
  ask(Request("POST", "/from").id(7).body("x"));
  for (const char* const text :
       {"Received Redirect request for Id 7 and status 302",
        "Processing request for status: 302 ,Last URI: /from ,Target URI: to?x=1",
        "Redirect Request: GET /from 302 and RequestURI /to?x=1"}) {
    const auto line = log().find(text);
    ASSERT_TRUE(line.has_value()) << text;
    EXPECT_TRUE(line->text.ends_with(text)) << line->text;
    EXPECT_EQ(line->level, QOR_LOG_DEBUG) << text;
  }
}

TEST_F(Redirects, AreLoggedForIdsOfAnyKind) {
  redirect("/from", 302, "/to");
  ask(Request("GET", "/from").set("requestId", mapValue({{"a", "b"}})));
  EXPECT_TRUE(log().contains("Received Redirect request for Id {a=b} and status 302"));
}

TEST_F(Redirects, NeverPassTheirLocationOnAsAFormat) {
  redirect("/from", 302, "/%25n%25s");
  EXPECT_EQ(ask(Request("GET", "/from")).status(), 404);
  EXPECT_TRUE(log().contains("Target URI: /%25n%25s"));
}

// --- The redirect's own response ----------------------------------------------------------------

TEST_F(Redirects, LeaveNothingOfThemselvesInTheAnswer) {
  HeaderList headers = to("/to");
  headers.emplace_back("X-Of-The-Redirect", "1");
  headers.emplace_back("Content-Type", "text/html; charset=iso-8859-1");
  server().answer("/from", {302, headers, "a longer body than the last one has"});
  const Answer answer = ask(Request("GET", "/from"));
  EXPECT_EQ(answer.header("x-of-the-redirect"), std::nullopt);
  EXPECT_EQ(answer.text("contentType"), "");
  EXPECT_EQ(answer.text("charset"), "utf-8");
  EXPECT_EQ(answer.reason(), "OK");
  EXPECT_EQ(answer.body(), "arrived");
}

TEST_F(Redirects, WithABodyBeyondTheLimitAreRejected) {
  server().answer("/from", {302, to("/to"), std::string(5000, 'x')});
  const Answer answer = ask(Request("GET", "/from").limit(1).policy("REJECT"));
  EXPECT_EQ(answer.status(), 413) << answer.reason();
  EXPECT_EQ(server().requestCount(), 1U);
  EXPECT_EQ(ask(Request("GET", "/to")).body(), "arrived");
}

TEST_F(Redirects, WithABodyBeyondATruncatingLimitAreFollowed) {
  server().answer("/from", {302, to("/to"), std::string(5000, 'x')});
  for (const char* const policy : {"TRUNCATE_END", "TRUNCATE_START"}) {
    EXPECT_EQ(ask(Request("GET", "/from").limit(1).policy(policy)).body(), "arrived") << policy;
  }
}

TEST_F(Redirects, WithABodyCutShortFailTheRequest) {
  ScriptedServer cutting([](Connection& connection) {
    connection.readRequest();
    connection.send("HTTP/1.1 302 Found\r\nLocation: /to\r\nContent-Length: 9\r\n\r\nshort");
  });
  PluginUnderTest plugin(Config(cutting.port()));
  const Answer answer = plugin.request(Request("GET", "/from"));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_EQ(answer.reason(), "Error processing response stream: I/O error");
  EXPECT_EQ(cutting.requestCount(), 1U);
}

TEST_F(Redirects, WithACodedBodyAreFollowed) {
  HeaderList headers = to("/to");
  headers.emplace_back("Content-Encoding", "gzip");
  server().answer("/from", {302, headers, gzip("moved")});
  EXPECT_EQ(ask(Request("GET", "/from")).body(), "arrived");
  EXPECT_EQ(server().connectionCount(), 1U);
}

TEST_F(Redirects, WithAnUnreadableBodyAreFollowedOnANewConnection) {
  HeaderList headers = to("/to");
  headers.emplace_back("Content-Encoding", "br");
  server().answer("/from", {302, headers, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"});
  EXPECT_EQ(ask(Request("GET", "/from")).body(), "arrived");
  EXPECT_EQ(targets(), (Targets{"/from", "/to"}));
}

// --- Connections --------------------------------------------------------------------------------

TEST_F(Redirects, ThatCloseTheConnectionAreFollowedOnANewOne) {
  ScriptedServer closing(
      {[](Connection& connection) {
         connection.readRequest();
         connection.sendResponse(302, {{"Location", "/to"}, {"Connection", "close"}});
       },
       [](Connection& connection) {
         connection.readRequest();
         connection.sendResponse(200, {}, "arrived");
         connection.awaitPeerClose();
       }});
  PluginUnderTest plugin(Config(closing.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/from")).body(), "arrived");
  EXPECT_EQ(closing.connectionCount(), 2U);
  EXPECT_FALSE(plugin.log().contains(retryLine));
}

// Every exchange fails once: the request's own, and the one that follows the redirect.
TEST_F(Redirects, HaveOneRetryForEachExchange) {
  const auto readAndClose = [](Connection& connection) { connection.readRequest(); };
  const auto redirectThenClose = [](Connection& connection) {
    connection.readRequest();
    connection.sendResponse(307, to("/to"));
    connection.readRequest();
  };
  ScriptedServer failing({readAndClose, redirectThenClose, [](Connection& connection) {
                            while (connection.readRequest()) {
                              connection.sendResponse(200, {}, "arrived");
                            }
                          }});
  PluginUnderTest plugin(Config(failing.port()));
  const Answer answer = plugin.request(Request("POST", "/from").body("again"));
  EXPECT_EQ(answer.body(), "arrived") << answer.reason();
  Targets seen;
  seen.reserve(4);
  for (const auto& request : failing.requests()) {
    seen.push_back(request.target);
    EXPECT_EQ(request.body, "again");
  }
  EXPECT_EQ(seen, (Targets{"/from", "/from", "/to", "/to"}));
  EXPECT_EQ(plugin.log().count(retryLine), 2U);
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_EQ(plugin.answerCount(), 1U);
}

TEST_F(Redirects, WhoseFollowUpFailsTwiceFailTheRequestOnce) {
  ScriptedServer failing({[](Connection& connection) {
                            connection.readRequest();
                            connection.sendResponse(302, to("/to"));
                            connection.readRequest();
                          },
                          [](Connection& connection) { connection.readRequest(); }});
  PluginUnderTest plugin(Config(failing.port()));
  const Answer answer = plugin.request(Request("GET", "/from").id(11));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_EQ(answer.id(), 11);
  EXPECT_EQ(answer.text("http/path"), "/from");
  EXPECT_EQ(failing.requestCount(), 3U);
  EXPECT_EQ(plugin.log().count(retryLine), 1U);
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_EQ(plugin.answerCount(), 1U);
  EXPECT_EQ(plugin.statusItem(".status"), "FAILED");
}

TEST_F(Redirects, AreCountedForEachRequestOnItsOwn) {
  redirect("/from", 302, "/to");
  for (int round = 0; round < 12; ++round) {
    EXPECT_EQ(ask(Request("GET", "/from")).body(), "arrived") << round;
  }
  EXPECT_EQ(server().connectionCount(), 1U);
}

}  // namespace
}  // namespace test_support
