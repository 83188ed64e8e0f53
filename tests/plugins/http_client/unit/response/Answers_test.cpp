// From a response or a failure to the message that goes towards the host.
#include "plugins/http_client/response/Answers.hpp"

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "tests/plugins/http_client/TransportParts.hpp"

namespace connectivity::plugins {
namespace {

using test_support::mapValue;
using test_support::Request;
using test_support::textValue;
using Told = test_support::Answer;  // the message, as a host reads it

class AnswersTest : public testing::Test {
 protected:
  AnswersTest() { head.setStatus(1, 200, "OK"); }

  Answers answers(bool marks = false) { return {parts.keys, parts.cookies, marks, parts.log}; }
  Answer respond(std::string_view payload = {}, bool fromConfiguredServer = true) {
    Response response;
    response.head = &head;
    response.payload = buffer_t::copyOf(payload);
    response.fromConfiguredServer = fromConfiguredServer;
    return answers().sendResponse(std::move(response), req);
  }
  Told told() { return Told(std::move(respond().message)); }
  Told error(const Failure& failure, bool marks = false) {
    return Told(std::move(answers(marks).handleHTTPException(failure, req).message));
  }
  std::string sentToTheServer() { return parts.cookies.getCookiesFromRequest({}, "", "/"); }

  TransportParts parts;
  ResponseHead head;
  request req = parts.read(Request("PUT", "/x").id("an id").set("requestSentTime", data_t(17)));
};

// --- A response ---------------------------------------------------------------------------------

TEST_F(AnswersTest, ResponseCarriesItsRequestAndItsStatus) {
  head.setStatus(1, 404, "Not Here");
  const Told answer = told();
  EXPECT_EQ(answer.status(), 404);
  EXPECT_EQ(answer.find("http/statusCode")->tag(), QOR_INT64);
  EXPECT_EQ(answer.reason(), "Not Here");
  EXPECT_EQ(answer.text("requestId"), "an id");
  EXPECT_EQ(answer.text("requestSentTime"), "17");
  EXPECT_EQ(answer.text("http/method"), "PUT");
  EXPECT_EQ(answer.text("http/path"), "/x");
  EXPECT_FALSE(answer.isError());
}

TEST_F(AnswersTest, ResponseCarriesItsPayload) {
  EXPECT_EQ(Told(std::move(respond("bytes").message)).body(), "bytes");
  EXPECT_EQ(told().body(), "");
}

TEST_F(AnswersTest, ResponseIsCountedWithWhatItWas) {
  head.setStatus(1, 503, "");
  const Answer answer = respond("12345");
  EXPECT_EQ(answer.status, 503);
  EXPECT_EQ(answer.size, 5U);
  EXPECT_EQ(answer.startTime, 1.5);
  EXPECT_STREQ(answer.transportStatus, "ONLINE");
  EXPECT_EQ(answer.requestBytes, std::nullopt) << "whoever sent it knows";
}

struct Label {
  const char* field;  // null: none
  const char* type;
  const char* charset;
};

TEST_F(AnswersTest, ResponseIsLabelledAsItsContentTypeSays) {
  for (const Label& label : {Label{"Text/HTML; charset=ISO-8859-1", "Text/HTML", "iso-8859-1"},
                             {"text/plain; charset=\"UTF8\"", "text/plain", "utf-8"},
                             {"application/json", "application/json", "utf-8"},
                             {"a/b", "a/b", "utf-8"},
                             {nullptr, "", "utf-8"},
                             {"", "", "utf-8"},
                             {"nonsense", "", "utf-8"},
                             {"; charset=x", "", "utf-8"}}) {
    head.clear();
    head.setStatus(1, 200, "OK");
    if (label.field != nullptr) head.addField("Content-Type", label.field);
    const Told answer = told();
    EXPECT_EQ(answer.text("contentType"), label.type) << (label.field ? label.field : "none");
    EXPECT_EQ(answer.text("charset"), label.charset) << (label.field ? label.field : "none");
  }
}

TEST_F(AnswersTest, HeadersAreDeliveredInUtf8UnderTheirNamesInLowerCase) {
  head.addField("X-Caf", "caf\xE9");
  head.addField("X-Word", "=?utf-8?q?a?=");
  head.addField("X-Empty", "");
  const Told answer = told();
  EXPECT_EQ(answer.header("x-caf"), "caf\u00e9");
  EXPECT_EQ(answer.header("x-word"), "=?utf-8?q?a?=") << "as it was sent";
  EXPECT_EQ(answer.header("x-empty"), "");
}

TEST_F(AnswersTest, OfHeadersWithOneNameTheFirstStaysAndTheOthersAreReported) {
  head.addField("X-A", "first");
  head.addField("x-a", "second");
  EXPECT_EQ(told().header("x-a"), "first");
  EXPECT_TRUE(parts.logged(Level::Debug,
                           "Ignoring HTTP header x-a because it's duplicated in the message"));
}

TEST_F(AnswersTest, ReasonIsDeliveredInUtf8WithoutANul) {
  head.setStatus(1, 200, std::string_view("caf\xE9\0", 5));
  EXPECT_EQ(told().reason(), "caf\u00e9\\x00");
}

TEST_F(AnswersTest, CookiesOfTheConfiguredServerGoIntoTheJarToo) {
  head.addField("Set-Cookie", "a=1");
  head.addField("Set-Cookie", "b=2");
  const Told answer = told();
  EXPECT_EQ(answer.cookie("a"), "1");
  EXPECT_EQ(answer.cookie("b"), "2");
  EXPECT_EQ(sentToTheServer(), "b=2; a=1");
}

TEST_F(AnswersTest, CookiesOfAnotherServerAreDeliveredAlone) {
  head.addField("Set-Cookie", "a=1");
  EXPECT_EQ(Told(std::move(respond("", false).message)).cookie("a"), "1");
  EXPECT_EQ(sentToTheServer(), "");
}

TEST_F(AnswersTest, ResponseIsLogged) {
  head.addField("X-Caf", "caf\xE9");
  respond("bytes");
  EXPECT_TRUE(parts.logged(Level::Trace, "   response status = 200"));
  EXPECT_TRUE(parts.logged(Level::Trace, "   response header x-caf = caf\u00e9"));
  EXPECT_TRUE(parts.logged(Level::Trace, "   response payload: bytes"));
  EXPECT_TRUE(parts.logged(Level::Debug, "Sending response towards host"));
  respond();
  EXPECT_TRUE(parts.logged(Level::Trace, "   response payload: <no payload>"));
}

// --- A failure ----------------------------------------------------------------------------------

TEST_F(AnswersTest, FailureIsToldInTheErrorShape) {
  const Told answer = error({FailureKind::Unreachable, "Connection refused", "caf\u00e9:1"});
  EXPECT_EQ(answer.status(), 400);
  EXPECT_EQ(answer.reason(), "Connection refused: caf\u00e9:1");
  EXPECT_EQ(answer.body(), answer.reason());
  EXPECT_EQ(answer.text("http/contentType"), "text/plain");
  EXPECT_EQ(answer.text("http/charset"), "utf-8");
  EXPECT_EQ(answer.text("requestId"), "an id");
  EXPECT_EQ(answer.text("requestSentTime"), "17");
  EXPECT_EQ(answer.text("http/method"), "PUT");
  EXPECT_EQ(answer.text("http/path"), "/x");
  EXPECT_FALSE(answer.has("http/headers"));
  EXPECT_FALSE(answer.has("http/failure"));
}

TEST_F(AnswersTest, FailureIsCountedAsItsRowSays) {
  for (const FailureKind kind :
       {FailureKind::Refused, FailureKind::Unreachable, FailureKind::TunnelRefused,
        FailureKind::NoAnswer, FailureKind::BadAnswer, FailureKind::LimitExceeded,
        FailureKind::RedirectFailed, FailureKind::DeadlineExceeded}) {
    const Answer answer = answers(true).handleHTTPException({kind, "", "12345"}, req);
    EXPECT_EQ(answer.status, rowOf(kind).status);
    EXPECT_EQ(answer.size, 5U);
    EXPECT_EQ(answer.startTime, 1.5);
    if (rowOf(kind).setsFailed) {
      EXPECT_STREQ(answer.transportStatus, "FAILED");
    } else {
      EXPECT_EQ(answer.transportStatus, nullptr);
    }
    const data_t* const mark = test_support::find(answer.message.metadata, {"http", "failure"});
    ASSERT_NE(mark, nullptr);
    EXPECT_STREQ(mark->text(), rowOf(kind).mark);
  }
}

TEST_F(AnswersTest, FailureIsLoggedWithItsNameWhereItHasOne) {
  error({FailureKind::NoAnswer, "Timeout", "too long"});
  EXPECT_TRUE(
      parts.logged(Level::Warn, "Caught exception processing a request: Timeout (too long)"));
  error({FailureKind::RedirectFailed, "", "Maximum redirects exceeded"});
  EXPECT_TRUE(
      parts.logged(Level::Warn, "Failed to perform HTTP redirect: Maximum redirects exceeded"));
}

// --- A message that could not be read -----------------------------------------------------------

Told refused(const Answers& answers, Message&& message) {
  const Failure failure{FailureKind::Refused, "", "No method"};
  return Told(std::move(answers.refuse(failure, message, 2.5).message));
}

TEST_F(AnswersTest, RefusalCarriesWhatTheMessageToldOfItself) {
  const Told answer = refused(answers(), Request("GET", "/y")
                                             .id(7)
                                             .set("requestSentTime", textValue("then"))
                                             .set("http/headers", data_t(1))
                                             .message());
  EXPECT_EQ(answer.status(), 400);
  EXPECT_EQ(answer.body(), "No method");
  EXPECT_EQ(answer.id(), 7);
  EXPECT_EQ(answer.text("requestSentTime"), "then");
  EXPECT_EQ(answer.text("http/method"), "GET");
  EXPECT_EQ(answer.text("http/path"), "/y");
  EXPECT_TRUE(parts.logged(Level::Warn, "Caught exception processing a request: No method"));
}

TEST_F(AnswersTest, RefusalHasEmptyValuesForWhatIsNotKnown) {
  for (const bool hasHttp : {false, true}) {
    Message message;
    if (hasHttp) test_support::put(message.metadata, {"http"}, textValue("no map"));
    const Told answer = refused(answers(), std::move(message));
    for (const char* path : {"requestId", "requestSentTime", "http/method", "http/path"}) {
      ASSERT_TRUE(answer.has(path)) << path;
      EXPECT_TRUE(answer.find(path)->empty()) << path;
    }
  }
}

TEST_F(AnswersTest, RefusalIsCountedAsAnErrorThatSaysNothingOfTheServer) {
  Message message = Request("GET", "/y").message();
  const Answer answer = answers(true).refuse({FailureKind::Refused, "", "No method"}, message, 2.5);
  EXPECT_EQ(answer.status, 400);
  EXPECT_EQ(answer.size, 9U);
  EXPECT_EQ(answer.startTime, 2.5);
  EXPECT_EQ(answer.transportStatus, nullptr);
  EXPECT_EQ(answer.requestBytes, std::nullopt);
  EXPECT_STREQ(test_support::find(answer.message.metadata, {"http", "failure"})->text(), "refused");
}

}  // namespace
}  // namespace connectivity::plugins
