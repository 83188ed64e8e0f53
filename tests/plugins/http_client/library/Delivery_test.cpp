// What comes back to the host: the shape of responses and of errors.
#include <memory>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

// One exchange with a server that answers /x with this.
class ResponseDelivery : public ::testing::Test {
 protected:
  Answer answerTo(CannedResponse response, const Request& request = Request("GET", "/x")) {
    _server.answer("/x", std::move(response));
    _plugin = std::make_unique<PluginUnderTest>(Config(_server.port()));
    return _plugin->request(request);
  }
  Answer answerTo(const std::string& raw) {
    ScriptedServer server([&](Connection& connection) {
      connection.readRequest();
      connection.send(raw);
    });
    _plugin = std::make_unique<PluginUnderTest>(Config(server.port()));
    return _plugin->request(Request("GET", "/x"));
  }
  LogDouble& log() { return _plugin->log(); }

  ScriptedServer _server;
  std::unique_ptr<PluginUnderTest> _plugin;
};

TEST_F(ResponseDelivery, CarriesStatusReasonHeadersAndBody) {
  const std::string bytes("a\0\xFF", 3);
  const Answer answer = answerTo({201, {{"X-Mixed-Case", "Kept As It Is"}}, bytes});
  EXPECT_EQ(answer.status(), 201);
  EXPECT_EQ(answer.find("http/statusCode")->tag(), QOR_INT64);
  EXPECT_EQ(answer.reason(), "Created");
  EXPECT_EQ(answer.header("x-mixed-case"), "Kept As It Is");
  EXPECT_EQ(answer.header("content-length"), "3");
  EXPECT_EQ(answer.body(), bytes);
  EXPECT_EQ(answer.payload().tag(), QOR_BUFFER);
  EXPECT_EQ(answer.text("http/method"), "GET");
  EXPECT_EQ(answer.text("http/path"), "/x");
}

TEST_F(ResponseDelivery, HasItsKeysWhereTheFormatPutsThem) {
  const Answer answer = answerTo({200, {{"Content-Type", "text/html"}}, ""});
  EXPECT_EQ(answer.metadata().size(), 5U);
  for (const char* const key :
       {"requestId", "requestSentTime", "charset", "contentType", "http", "http/statusCode",
        "http/statusReason", "http/method", "http/path", "http/headers", "http/cookies"}) {
    EXPECT_TRUE(answer.has(key)) << key;
  }
  EXPECT_EQ(connectivity::get<map_t>(*answer.find("http")).size(), 6U);
}

TEST_F(ResponseDelivery, HasContentTypeAtTheTopWhereErrorsHaveItInsideHttp) {
  const Answer response = answerTo({400, {{"Content-Type", "text/plain"}}, "no"});
  EXPECT_EQ(response.text("contentType"), "text/plain");
  EXPECT_EQ(response.text("charset"), "utf-8");
  EXPECT_FALSE(response.has("http/contentType"));
  EXPECT_FALSE(response.has("http/charset"));
  const Answer error = _plugin->request(Request("PATCH", "/x"));
  EXPECT_EQ(error.text("http/contentType"), "text/plain");
  EXPECT_EQ(error.text("http/charset"), "utf-8");
  EXPECT_FALSE(error.has("contentType"));
  EXPECT_FALSE(error.has("charset"));
}

TEST_F(ResponseDelivery, OfAnErrorHasItsKeysWhereTheFormatPutsThem) {
  _plugin = std::make_unique<PluginUnderTest>(Config(unusedPort()));
  const Answer error = _plugin->request(Request("GET", "/x"));
  EXPECT_EQ(error.metadata().size(), 3U);
  EXPECT_EQ(connectivity::get<map_t>(*error.find("http")).size(), 6U);
  EXPECT_EQ(error.find("http/statusCode")->tag(), QOR_INT64);
  EXPECT_EQ(error.payload().tag(), QOR_BUFFER);
  EXPECT_EQ(error.body(), error.reason());
}

// --- What the request gets back unchanged -------------------------------------------------------

data_t listOf(long long first, const char* second) {
  connectivity::list_t list;
  list.push_back(data_t(first));
  list.push_back(data_t(second));
  return data_t(std::move(list));
}

TEST_F(ResponseDelivery, GivesIdsOfAnyKindBackUnchanged) {
  _server.answer("/x", {});
  PluginUnderTest plugin(Config(_server.port()));
  std::vector<data_t> ids;
  ids.emplace_back("text");
  ids.emplace_back(2.5);
  ids.emplace_back(true);
  ids.push_back(listOf(1, "b"));
  ids.push_back(mapValue({{"a", "b"}}));
  ids.push_back(bufferValue("bytes"));
  ids.emplace_back();
  for (const auto& id : ids) {
    const Answer answer = plugin.request(
        Request("GET", "/x").set("requestId", id.copy()).set("requestSentTime", id.copy()));
    EXPECT_EQ(answer.status(), 200);
    EXPECT_TRUE(*answer.find("requestId") == id) << connectivity::kindOf(id);
    EXPECT_TRUE(*answer.find("requestSentTime") == id) << connectivity::kindOf(id);
  }
}

TEST_F(ResponseDelivery, HasAnEmptySentTimeWhereTheRequestHasNone) {
  const Answer answer = answerTo({200, {}, ""});
  ASSERT_TRUE(answer.has("requestSentTime"));
  EXPECT_TRUE(answer.find("requestSentTime")->empty());
}

TEST_F(ResponseDelivery, GivesThePathBackAsTheRequestHadIt) {
  _server.answer("/base/a%20b", {});
  PluginUnderTest plugin(Config(_server.port()).set("basePath", "/base"));
  const Answer answer = plugin.request(Request("GET", "/a b#part").query("q", "1"));
  EXPECT_EQ(answer.status(), 200);
  EXPECT_EQ(answer.text("http/path"), "/a b#part");
}

// --- Status lines -------------------------------------------------------------------------------

TEST_F(ResponseDelivery, PassesErrorStatusesOnAsResponses) {
  for (const int status : {400, 404, 500, 503}) {
    ScriptedServer server;
    server.answer("/x", {status, {}, "explanation"});
    PluginUnderTest plugin(Config(server.port()));
    const Answer answer = plugin.request(Request("GET", "/x"));
    EXPECT_EQ(answer.status(), status);
    EXPECT_EQ(answer.body(), "explanation");
    EXPECT_FALSE(answer.isError());
    EXPECT_EQ(plugin.statusItem(".status"), "ONLINE");
  }
}

TEST_F(ResponseDelivery, DeliversTheReasonAsTheServerSpellsIt) {
  EXPECT_EQ(answerTo("HTTP/1.1 299 Sort of fine\r\nContent-Length: 0\r\n\r\n").reason(),
            "Sort of fine");
  EXPECT_EQ(answerTo("HTTP/1.1 200 caf\xE9\r\nContent-Length: 0\r\n\r\n").reason(), "caf\u00e9");
  EXPECT_EQ(answerTo("HTTP/1.1 200 \r\nContent-Length: 0\r\n\r\n").reason(), "");
  EXPECT_EQ(answerTo("HTTP/1.1 200\r\nContent-Length: 0\r\n\r\n").reason(), "");
}

// --- Headers ------------------------------------------------------------------------------------

TEST_F(ResponseDelivery, FirstOfDuplicatedHeadersKeepsItsValue) {
  const Answer answer =
      answerTo({200, {{"X-Twice", "first"}, {"x-twice", "second"}, {"X-Once", "once"}}, ""});
  EXPECT_EQ(answer.header("x-twice"), "first");
  EXPECT_EQ(answer.header("x-once"), "once");
  const auto line =
      log().find("Ignoring HTTP header x-twice because it's duplicated in the message");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->level, QOR_LOG_DEBUG);
}

TEST_F(ResponseDelivery, HeadersAreDeliveredInUtf8) {
  EXPECT_EQ(answerTo({200, {{"X-Name", "caf\xE9"}}, ""}).header("x-name"), "caf\u00e9");
}

TEST_F(ResponseDelivery, HoldsTheCookiesThatThisResponseSet) {
  const Answer answer = answerTo(
      {200, {{"Set-Cookie", "a=1; Path=/"}, {"Set-Cookie", "b=2; HttpOnly; Partitioned"}}, ""});
  EXPECT_EQ(answer.cookie("a"), "1");
  EXPECT_EQ(answer.cookie("b"), "2");
  const Answer next = _plugin->request(Request("GET", "/none"));
  EXPECT_EQ(next.cookie("a"), std::nullopt);
  EXPECT_TRUE(next.has("http/cookies"));
}

// --- The log ------------------------------------------------------------------------------------

TEST_F(ResponseDelivery, IsTracedHeaderByHeader) {
  answerTo({200, {{"X-Format", "%s%n"}}, "visible %d"});
  for (const char* const text : {"   response status = 200", "   response header x-format = %s%n",
                                 "   response payload: visible %d"}) {
    const auto line = log().find(text);
    ASSERT_TRUE(line.has_value()) << text;
    EXPECT_EQ(line->level, QOR_LOG_TRACE);
  }
  const auto sending = log().find("Sending response towards host");
  ASSERT_TRUE(sending.has_value());
  EXPECT_EQ(sending->level, QOR_LOG_DEBUG);
}

TEST_F(ResponseDelivery, TracesNoPayloadWhereThereIsNone) {
  answerTo({204, {{"Content-Length", "0"}}, ""});
  EXPECT_TRUE(log().contains("   response payload: <no payload>"));
}

TEST_F(ResponseDelivery, LinesOfTheWorkerNameLoggerAndWorker) {
  answerTo({200, {}, ""});
  EXPECT_EQ(log().find("Sending response towards host")->text,
            "<connectivity.plugin.chain> {0} Sending response towards host");
  EXPECT_EQ(log().find("Sending response towards host")->category, "connectivity.plugin.chain");
}

TEST_F(ResponseDelivery, HostThatRefusesAResponseIsLogged) {
  _server.answer("/x", {});
  PluginUnderTest plugin(Config(_server.port()));
  plugin.setDeliveryResult(7);
  plugin.request(Request("GET", "/x"));
  EXPECT_EQ(plugin.log().waitForLine("The host refused a response (7)").level, QOR_LOG_WARN);
  plugin.setDeliveryResult(0);
  EXPECT_EQ(plugin.request(Request("GET", "/x").id(2)).id(), 2);
  EXPECT_EQ(plugin.answerCount(), 2U);
}

// --- Failures -----------------------------------------------------------------------------------

TEST_F(ResponseDelivery, FailureSetsFailedAndTheNextSuccessOnline) {
  ScriptedServer server({[](Connection& connection) {
                           connection.readRequest();
                           connection.send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nshort");
                         },
                         [](Connection& connection) {
                           connection.readRequest();
                           connection.sendResponse(200);
                         }});
  PluginUnderTest plugin(Config(server.port()));
  std::string statusInside;
  plugin.onDelivery([&](const Answer&) { statusInside = plugin.statusItem(".status"); });
  EXPECT_EQ(plugin.statusItem(".status"), "ONLINE");
  EXPECT_EQ(plugin.request(Request("GET", "/x")).status(), 400);
  EXPECT_EQ(statusInside, "FAILED");
  EXPECT_EQ(plugin.request(Request("GET", "/x")).status(), 200);
  EXPECT_EQ(statusInside, "ONLINE");
}

TEST_F(ResponseDelivery, FailureCarriesTheRequestsIdTimeMethodAndPath) {
  PluginUnderTest plugin{Config(unusedPort())};
  const Answer answer =
      plugin.request(Request("PUT", "/y").id(99).set("requestSentTime", data_t("noon")));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_EQ(answer.id(), 99);
  EXPECT_EQ(answer.text("requestSentTime"), "noon");
  EXPECT_EQ(answer.text("http/method"), "PUT");
  EXPECT_EQ(answer.text("http/path"), "/y");
}

TEST_F(ResponseDelivery, FailureIsLoggedWithNameAndMessage) {
  PluginUnderTest plugin{Config(unusedPort())};
  plugin.request(Request("GET", "/x"));
  const auto line = plugin.log().find("Caught exception processing a request: ");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->level, QOR_LOG_WARN);
  EXPECT_NE(line->text.find("Connection refused ("), std::string::npos) << line->text;
}

}  // namespace
}  // namespace test_support
