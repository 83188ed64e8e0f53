// Forms on the wire: what a loaded transport sends for a map payload.
#include <optional>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "tests/support/Messages.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace {

using test_support::Answer;
using test_support::Config;
using test_support::Connection;
using test_support::mapValue;
using test_support::PluginUnderTest;
using test_support::RecordedRequest;
using test_support::Request;
using test_support::ScriptedServer;

constexpr const char* urlEncoded = "application/x-www-form-urlencoded";
constexpr const char* noFileName =
    "Can't find filename in the form metadata. Data will be send as a string not as a binary "
    "payload";
constexpr const char* payloadRefusal =
    "HTTPClient payloads must be binary buffers or dictionary having string key and either string "
    "or binary value (did you mean to use the StringCodec to encode a string to a buffer?)";

// The boundary that a multipart request announces.
std::string boundaryOf(const RecordedRequest& request) {
  const std::string type = request.header("Content-Type").value_or("");
  const std::string name = "boundary=";
  const std::size_t at = type.find(name);
  if (at == std::string::npos) return "";
  std::string boundary = type.substr(at + name.size());
  if (boundary.starts_with('"')) boundary = boundary.substr(1, boundary.size() - 2);
  return boundary;
}

// The body of a form of one part: what stands between the delimiters.
std::string onlyPartOf(const RecordedRequest& request) {
  const std::string boundary = boundaryOf(request);
  const std::string start = "--" + boundary + "\r\n";
  const std::string end = "\r\n--" + boundary + "--\r\n";
  if (boundary.empty() || !request.body.starts_with(start) || !request.body.ends_with(end)) {
    return "no form: " + request.raw;
  }
  return request.body.substr(start.size(), request.body.size() - start.size() - end.size());
}

void expectFramedByLengthAlone(const RecordedRequest& request) {
  EXPECT_EQ(request.headerCount("Content-Length"), 1U) << request.raw;
  EXPECT_EQ(request.header("Content-Length"), std::to_string(request.body.size())) << request.raw;
  EXPECT_EQ(request.headerCount("Transfer-Encoding"), 0U) << request.raw;
}

class Forms : public testing::Test {
 protected:
  Forms() { _server.answer("/form", {200, {}, "done"}); }

  // The request as the server got it; the answer must be a success.
  RecordedRequest sent(const Request& request) {
    const Answer answer = _plugin.request(request);
    EXPECT_EQ(answer.status(), 200) << answer.reason();
    return _server.requests().back();
  }
  // Expects a refusal with status 400 and this text, and that nothing is sent.
  void expectRefused(const Request& request, const std::string& text) {
    const std::size_t before = _server.requestCount();
    const Answer answer = _plugin.request(request);
    EXPECT_EQ(answer.status(), 400);
    EXPECT_TRUE(answer.isError());
    EXPECT_EQ(answer.reason(), text);
    EXPECT_EQ(answer.body(), text);
    EXPECT_EQ(_server.requestCount(), before);
  }
  ScriptedServer& server() { return _server; }
  PluginUnderTest& plugin() { return _plugin; }

 private:
  ScriptedServer _server;
  PluginUnderTest _plugin{Config(_server.port()).numClients(1)};
};

// --- which encoding -----------------------------------------------------------------------------

TEST_F(Forms, OfTextsGoesUrlEncoded) {
  const RecordedRequest request = sent(Request("POST", "/form").field("a", "1 2&3").form());
  EXPECT_EQ(request.header("Content-Type"), urlEncoded);
  EXPECT_EQ(request.body, "a=1%202%263");
  expectFramedByLengthAlone(request);
}

TEST_F(Forms, WithAFileGoesMultipart) {
  const std::string bytes("\0\r\n--x", 6);
  const RecordedRequest request =
      sent(Request("PUT", "/form").file("upload", bytes).form("filename", "x.bin"));
  EXPECT_TRUE(request.header("Content-Type")->starts_with("multipart/form-data; boundary="));
  EXPECT_EQ(onlyPartOf(request),
            "Content-Disposition: form-data; name=\"upload\"; filename=\"x.bin\"\r\n"
            "Content-Type: application/octet-stream\r\n\r\n" +
                bytes);
  expectFramedByLengthAlone(request);
}

TEST_F(Forms, ContentTypeOfTheRequestDecidesWhateverItsCaseAndParameters) {
  const RecordedRequest multipart =
      sent(Request("POST", "/form").field("a", "1").contentType("Multipart/FORM-data; x=y"));
  EXPECT_EQ(onlyPartOf(multipart), "Content-Disposition: form-data; name=\"a\"\r\n\r\n1");
  EXPECT_NE(multipart.header("Content-Type")->find("x=y"), std::string::npos);
  EXPECT_EQ(multipart.headerCount("Content-Type"), 1U);

  const RecordedRequest encoded = sent(
      Request("POST", "/form").field("a", "1").contentType("Application/x-www-form-URLencoded"));
  EXPECT_EQ(encoded.body, "a=1");
  EXPECT_EQ(encoded.header("Content-Type"), "Application/x-www-form-URLencoded");
}

TEST_F(Forms, BoundaryOfTheUserIsReplacedByTheOneInTheBody) {
  const RecordedRequest request = sent(
      Request("POST", "/form").field("a", "1").contentType("multipart/form-data; boundary=mine"));
  EXPECT_NE(boundaryOf(request), "mine");
  EXPECT_EQ(onlyPartOf(request), "Content-Disposition: form-data; name=\"a\"\r\n\r\n1");
}

TEST_F(Forms, BufferWithoutFileNameIsSentAsAFieldAndReported) {
  const RecordedRequest multipart = sent(Request("POST", "/form").file("a", "bytes").form());
  EXPECT_EQ(onlyPartOf(multipart), "Content-Disposition: form-data; name=\"a\"\r\n\r\nbytes");
  const RecordedRequest encoded =
      sent(Request("POST", "/form").file("a", "bytes").contentType(urlEncoded));
  EXPECT_EQ(encoded.body, "a=bytes");
  EXPECT_EQ(plugin().log().count(noFileName), 2U);
  EXPECT_EQ(plugin().log().find(noFileName)->level, QOR_LOG_WARN);
}

TEST_F(Forms, MetadataOfAFieldWinsOverTheCommonOne) {
  const RecordedRequest request = sent(Request("POST", "/form")
                                           .file("a", "1")
                                           .form("filename", "common")
                                           .form("charset", "utf-8")
                                           .form("a/contentType", "text/csv")
                                           .form("a/filename", "own"));
  EXPECT_EQ(onlyPartOf(request),
            "Content-Disposition: form-data; name=\"a\"; filename=\"own\"\r\n"
            "Content-Type: text/csv; charset=utf-8\r\n\r\n1");
}

TEST_F(Forms, MapOfAFormTypeIsAFormWithoutMetadata) {
  EXPECT_EQ(
      sent(Request("POST", "/form").payload(mapValue({{"a", "1"}})).contentType(urlEncoded)).body,
      "a=1");
}

TEST_F(Forms, BufferPayloadOfAFormTypeIsSentAsItIs) {
  const RecordedRequest request =
      sent(Request("POST", "/form").body("a=1&b=2").contentType(urlEncoded));
  EXPECT_EQ(request.body, "a=1&b=2");
}

TEST_F(Forms, EmptyFormIsAnEmptyBody) {
  const RecordedRequest request =
      sent(Request("POST", "/form").payload(test_support::data_t(test_support::map_t())).form());
  EXPECT_EQ(request.body, "");
  EXPECT_EQ(request.header("Content-Length"), "0");
}

// --- names --------------------------------------------------------------------------------------

TEST_F(Forms, QuoteInANameIsWrittenAsBrowsersDo) {
  const RecordedRequest request =
      sent(Request("POST", "/form").file("a\"b", "1").form("filename", "x\"y"));
  EXPECT_TRUE(onlyPartOf(request).starts_with(
      "Content-Disposition: form-data; name=\"a%22b\"; filename=\"x%22y\"\r\n"));
}

TEST_F(Forms, LineBreakInANameIsRefused) {
  expectRefused(Request("POST", "/form").field("a\r\nX-Injected: 1", "1").form(),
                "The name of a form field must not hold control characters");
  expectRefused(Request("POST", "/form").file("a", "1").form("filename", "x\r\nX-Injected: 1"),
                "http.form.filename must not hold control characters");
}

// --- refusals -----------------------------------------------------------------------------------

TEST_F(Forms, MapWithoutFormMetadataOrTypeIsRefused) {
  expectRefused(Request("POST", "/form").payload(mapValue({{"a", "1"}})), payloadRefusal);
  expectRefused(
      Request("POST", "/form").payload(mapValue({{"a", "1"}})).contentType("application/json"),
      payloadRefusal);
}

TEST_F(Forms, AnotherContentTypeIsRefused) {
  expectRefused(Request("POST", "/form").field("a", "1").form().contentType("application/json"),
                "HTTPClient forms cannot be sent as application/json");
}

TEST_F(Forms, ContentCodingIsRefused) {
  const Request form = Request("POST", "/form").field("a", "1").form();
  expectRefused(Request(form).header("Content-Encoding", "gzip"),
                "HTTPClient forms cannot be sent with Content-Encoding gzip");
  EXPECT_EQ(sent(Request(form).header("Content-Encoding", "identity")).body, "a=1");
}

TEST_F(Forms, FileInAUrlEncodedFormIsRefused) {
  expectRefused(
      Request("POST", "/form").file("a", "1").form("filename", "x").contentType(urlEncoded),
      "HTTPClient form field a is a file, which only the body of a multipart/form-data request "
      "carries");
}

TEST_F(Forms, ValueOfAnotherKindIsRefused) {
  expectRefused(Request("POST", "/form").field("a", "1").form().payload([] {
    test_support::map_t fields;
    test_support::put(fields, {"a"}, test_support::data_t(1));
    return test_support::data_t(std::move(fields));
  }()),
                payloadRefusal);
}

TEST_F(Forms, MetadataOfTheWrongKindIsRefused) {
  expectRefused(
      Request("POST", "/form").file("a", "1").set("http/form/filename", test_support::data_t(1)),
      "http.form.filename must be a string");
  expectRefused(Request("POST", "/form")
                    .file("a", "1")
                    .set("http/form/a/contentType", test_support::data_t(1)),
                "http.form.a.contentType must be a string");
}

TEST_F(Forms, RefusalIsNoFailureOfTheServer) {
  sent(Request("POST", "/form").field("a", "1").form());
  const std::string before = plugin().statusItem(".status");
  expectRefused(Request("POST", "/form").payload(mapValue({{"a", "1"}})), payloadRefusal);
  EXPECT_EQ(plugin().statusItem(".status"), before);
}

// --- methods ------------------------------------------------------------------------------------

TEST_F(Forms, UnderGetTheFieldsGoIntoTheQuery) {
  const RecordedRequest request = sent(Request("GET", "/form").field("a b", "1&2").form());
  EXPECT_EQ(request.target, "/form?a%20b=1%262");
  EXPECT_EQ(request.body, "");
  EXPECT_EQ(request.headerCount("Content-Length"), 0U);
}

TEST_F(Forms, UnderGetTheFieldsFollowAQueryThatIsThere) {
  EXPECT_EQ(sent(Request("GET", "/form?x=1").field("a", "2").form()).target, "/form?x=1&a=2");
  EXPECT_EQ(sent(Request("GET", "/form").query("x", "1").field("a", "2").form()).target,
            "/form?x=1&a=2");
}

TEST_F(Forms, UnderGetAFileIsRefused) {
  expectRefused(Request("GET", "/form").file("a", "1").form("filename", "x"),
                "HTTPClient form field a is a file, which only the body of a multipart/form-data "
                "request carries");
}

TEST_F(Forms, UnderAMethodWithoutBodyIsDroppedAndReported) {
  for (const char* method : {"DELETE", "HEAD", "TRACE"}) {
    const RecordedRequest request = sent(Request(method, "/form").field("a", "1").form());
    EXPECT_EQ(request.body, "") << method;
    EXPECT_EQ(request.headerCount("Content-Length"), 0U) << method;
    EXPECT_EQ(request.target, "/form") << method;
    const std::string line =
        std::string("Ignoring specified payload for ") + method + " request method";
    EXPECT_EQ(plugin().log().waitForLine(line).level, QOR_LOG_WARN);
  }
}

// --- more than one exchange ---------------------------------------------------------------------

TEST_F(Forms, RetrySendsTheWholeFormAgain) {
  ScriptedServer closing({[](Connection& connection) { connection.readRequest(); },
                          [](Connection& connection) {
                            connection.readRequest();
                            connection.sendResponse(200, {}, "done");
                          }});
  PluginUnderTest plugin(Config(closing.port()).numClients(1));
  const std::string bytes(100000, 'x');
  const Answer answer =
      plugin.request(Request("POST", "/form").file("a", bytes).form("filename", "x.bin"));
  EXPECT_EQ(answer.status(), 200) << answer.reason();
  ASSERT_EQ(closing.requestCount(), 2U);
  for (const RecordedRequest& request : closing.requests()) {
    EXPECT_TRUE(onlyPartOf(request).ends_with("\r\n\r\n" + bytes));
    expectFramedByLengthAlone(request);
  }
}

TEST_F(Forms, LinesAboutAFormThatIsSentTwiceAreLoggedOnce) {
  ScriptedServer closing({[](Connection& connection) { connection.readRequest(); },
                          [&](Connection& connection) { server().answerByPath(connection); }});
  server().answer("/307", {307, {{"Location", "/form"}}, ""});
  PluginUnderTest plugin(Config(closing.port()).numClients(1));
  EXPECT_EQ(plugin.request(Request("POST", "/307").file("a", "bytes").form()).status(), 200);
  EXPECT_EQ(plugin.log().count("will retry once"), 1U);
  EXPECT_EQ(plugin.log().count(noFileName), 1U);
  plugin.request(Request("POST", "/form").file("a", "bytes").form());
  EXPECT_EQ(plugin.log().count(noFileName), 2U) << "the next request has its own";
}

TEST_F(Forms, RedirectThatKeepsTheBodySendsTheFormAgain) {
  server().answer("/307", {307, {{"Location", "/form"}}, ""});
  const RecordedRequest request =
      sent(Request("POST", "/307").file("a", "1").form("filename", "x"));
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.target, "/form");
  EXPECT_TRUE(onlyPartOf(request).ends_with("\r\n\r\n1"));
}

TEST_F(Forms, RedirectThatDropsTheBodyDropsTheForm) {
  server().answer("/303", {303, {{"Location", "/form"}}, ""});
  const RecordedRequest request =
      sent(Request("POST", "/303").file("a", "1").form("filename", "x"));
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.target, "/form");
  EXPECT_EQ(request.body, "");
  EXPECT_EQ(request.headerCount("Content-Type"), 0U);
}

// The target of a redirect stands for itself, as in browsers.
TEST_F(Forms, FieldsInTheQueryAreNotAppendedToARedirectsTarget) {
  server().answer("/moved", {302, {{"Location", "/form?there=1"}}, ""});
  EXPECT_EQ(sent(Request("GET", "/moved").field("a", "1").form()).target, "/form?there=1");
  EXPECT_EQ(server().request(0).target, "/moved?a=1");
}

}  // namespace
