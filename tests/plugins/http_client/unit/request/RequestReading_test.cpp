// From a message to the record of its request: what is taken, what stands where nothing is given,
// and what is refused.
#include "plugins/http_client/request/RequestReading.hpp"

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "tests/plugins/http_client/TransportParts.hpp"

namespace connectivity::plugins {
namespace {

using test_support::Config;
using test_support::mapValue;
using test_support::Request;
using test_support::textValue;
using Texts = request::Texts;

// With an integer option of the configuration.
Config with(const char* option, long long value) { return Config(1).set(option, value); }

std::string refusalOf(const Request& given, const Config& config = Config(1)) {
  const TransportParts parts(config);
  return plugins::refusalOf([&] { parts.read(given); });
}

Request get() { return {"GET", "/x"}; }

// --- What is taken ------------------------------------------------------------------------------

TEST(RequestReading, MovesThePartsOfTheMessageIntoTheRecord) {
  const TransportParts parts;
  Message message = Request("PUT", "/x?y")
                        .id("an id")
                        .set("requestSentTime", data_t(17))
                        .body("bytes")
                        .query("a b", "c")
                        .cookie("sid", "1")
                        .header("X-A", "b")
                        .message();
  const request req = parts.read(std::move(message));
  EXPECT_STREQ(req.requestId.text(), "an id");
  EXPECT_EQ(get<long long>(req.requestSentTime), 17);
  EXPECT_STREQ(req.method.text(), "PUT");
  EXPECT_STREQ(req.pathText(), "/x?y");
  EXPECT_EQ(get<buffer_t>(req.payload).view(), "bytes");
  EXPECT_EQ(req.queryParameters, (Texts{{"a b", "c"}}));
  EXPECT_EQ(req.cookies, (Texts{{"sid", "1"}}));
  EXPECT_EQ(req.headers, (Texts{{"x-a", "b"}}));
  EXPECT_EQ(req.startTime, 1.5);
  EXPECT_EQ(req.hop.method, "PUT");
  EXPECT_EQ(req.hop.target, "") << "it is built later";
  EXPECT_EQ(req.redirectsTaken, 0);
  EXPECT_EQ(req.redirectLimit, 9);
}

TEST(RequestReading, LeavesWhatIsNotGivenEmpty) {
  const TransportParts parts;
  const request req = parts.read(get());
  EXPECT_TRUE(req.requestSentTime.empty());
  EXPECT_TRUE(req.form.empty());
  EXPECT_TRUE(req.headers.empty());
  EXPECT_TRUE(req.queryParameters.empty());
  EXPECT_TRUE(req.cookies.empty());
  EXPECT_FALSE(req.deadline);
  EXPECT_TRUE(get<buffer_t>(req.payload).empty()) << "an empty payload is an empty buffer";
}

TEST(RequestReading, TakesANullForAbsent) {
  const TransportParts parts;
  Request given = get();
  for (const char* key :
       {"http/headers", "http/queryString", "http/cookies", "http/charset", "http/contentType",
        "http/form", "http/maxResponseKB", "http/maxResponsePolicy", "http/deadlineSecs"}) {
    given.set(key, data_t());
  }
  const request req = parts.read(given);
  EXPECT_TRUE(req.headers.empty());
  EXPECT_EQ(req.limit.maxResponseKB, -1);
  EXPECT_EQ(req.limit.maxResponsePolicy, "REJECT");
}

TEST(RequestReading, TakesEveryAcceptedMethod) {
  const TransportParts parts(Config(1).set("additionalMethods", "PATCH, OPTIONS"));
  for (const char* method : {"GET", "PUT", "POST", "DELETE", "HEAD", "TRACE", "PATCH", "OPTIONS"}) {
    EXPECT_EQ(parts.read(Request(method, "/")).hop.method, method);
  }
}

TEST(RequestReading, TakesAMapForAPayloadAndItsForm) {
  const TransportParts parts;
  const request req = parts.read(Request("POST", "/").field("a", "1").form("filename", "x"));
  EXPECT_EQ(get<map_t>(req.payload).size(), 1U);
  EXPECT_STREQ(get<map_t>(req.form).findText("filename")->text(), "x");
}

// --- Headers ------------------------------------------------------------------------------------

TEST(RequestReading, LowersHeaderNamesAndConvertsValuesToLatin1) {
  const TransportParts parts;
  EXPECT_EQ(parts.read(get().header("X-Caf", "caf\u00e9\tand")).headers,
            (Texts{{"x-caf", "caf\xE9\tand"}}));
}

TEST(RequestReading, KeepsOfTwoHeadersThatDifferInCaseTheOneWhoseNameIsLastInByteOrder) {
  const TransportParts parts;
  EXPECT_EQ(parts.read(get().header("x-a", "last").header("X-A", "first").header("X-a", "middle"))
                .headers,
            (Texts{{"x-a", "last"}}));
  EXPECT_TRUE(parts.logged(Level::Warn,
                           "Ignoring HTTP header X-A because it was set multiple times (headers "
                           "are case-insensitive)"));
  EXPECT_TRUE(parts.logged(Level::Warn,
                           "Ignoring HTTP header X-a because it was set multiple times (headers "
                           "are case-insensitive)"));
}

TEST(RequestReading, LeavesOutHeadersThatBelongToTheTransport) {
  const TransportParts parts;
  for (const char* name : {"Content-Length", "Transfer-Encoding", "Connection", "Proxy-Connection",
                           "Expect", "Upgrade", "TE", "Trailer"}) {
    EXPECT_TRUE(parts.read(get().header(name, "x")).headers.empty()) << name;
    EXPECT_TRUE(parts.logged(Level::Warn, std::string("Ignoring HTTP header ") + name +
                                              " because it belongs to the transport"))
        << name;
  }
}

struct TypeCase {
  const char* contentType;
  const char* charset;
  const char* sent;  // null: none
};

TEST(RequestReading, AppendsTheCharsetToATextType) {
  const TransportParts parts;
  for (const TypeCase& each : {TypeCase{"text/plain", nullptr, "text/plain;charset=utf-8"},
                               {"text/plain", "UTF8", "text/plain;charset=utf-8"},
                               {"text/plain", "ISO-8859-1", "text/plain;charset=iso-8859-1"},
                               {"text/x;charset=a", "b", "text/x;charset=a;charset=b"},
                               {"Text/plain", "utf-8", "Text/plain"},
                               {"application/json", "utf-16", "application/json"},
                               {"", "utf-8", nullptr}}) {
    Request given = get().contentType(each.contentType);
    if (each.charset != nullptr) given.charset(each.charset);
    const Texts headers = parts.read(given).headers;
    EXPECT_EQ(headers, each.sent == nullptr ? Texts() : (Texts{{"content-type", each.sent}}))
        << each.contentType;
  }
}

TEST(RequestReading, LetsTheContentTypeOfTheMetadataWinOverTheHeader) {
  const TransportParts parts;
  const auto typeOf = [&](const Request& given) {
    return parts.read(given).headers.at("content-type");
  };
  EXPECT_EQ(typeOf(get().header("Content-Type", "a/b")), "a/b");
  EXPECT_EQ(typeOf(get().header("Content-Type", "a/b").contentType("c/d")), "c/d");
  EXPECT_EQ(typeOf(get().header("Content-Type", "a/b").contentType("")), "a/b");
}

// --- Limits and deadline ------------------------------------------------------------------------

TEST(RequestReading, LetsTheRequestsLimitWinOverTheConfigured) {
  const TransportParts parts(
      Config(1).set("maxResponseKB", 5).set("maxResponsePolicy", "TRUNCATE_END"));
  EXPECT_EQ(parts.read(get()).limit.maxResponseKB, 5);
  EXPECT_EQ(parts.read(get()).limit.maxResponsePolicy, "TRUNCATE_END");
  const request own = parts.read(get().limit(-1).policy("TRUNCATE_START"));
  EXPECT_EQ(own.limit.maxResponseKB, -1);
  EXPECT_EQ(own.limit.maxResponsePolicy, "TRUNCATE_START");
}

TEST(RequestReading, CountsTheDeadlineFromNowAndLetsTheRequestsOwnWin) {
  using Seconds = std::chrono::seconds;
  const TransportParts parts(with("deadlineSecs", 1000));
  const auto before = std::chrono::steady_clock::now();
  const auto configured = parts.read(get()).deadline;
  const auto own = parts.read(get().set("http/deadlineSecs", data_t(5000))).deadline;
  const auto after = std::chrono::steady_clock::now();
  ASSERT_TRUE(configured && own);
  EXPECT_TRUE(*configured >= before + Seconds(1000) && *configured <= after + Seconds(1000));
  EXPECT_TRUE(*own >= before + Seconds(5000) && *own <= after + Seconds(5000));
}

TEST(RequestReading, TakesTheLongestDeadlineWithoutOverflow) {
  const TransportParts parts;
  const auto deadline =
      parts.read(get().set("http/deadlineSecs", data_t(9223372036854775807LL))).deadline;
  ASSERT_TRUE(deadline);
  EXPECT_GT(*deadline, std::chrono::steady_clock::now() + std::chrono::hours(24 * 365));
}

// --- Refusals -----------------------------------------------------------------------------------

struct Refusal {
  const char* name;
  std::function<Request()> given;
  const char* text;
};

Request having(const char* path, data_t&& value) { return get().set(path, std::move(value)); }

// A map whose only key is a number.
data_t numbered() {
  map_t map;
  map.insert(data_t(7), textValue("x"));
  return data_t(std::move(map));
}

std::string nameOf(const testing::TestParamInfo<Refusal>& info) { return info.param.name; }

class RequestRefusal : public testing::TestWithParam<Refusal> {};

TEST_P(RequestRefusal, HasItsText) { EXPECT_EQ(refusalOf(GetParam().given()), GetParam().text); }

// The answer still names what is known.
TEST_P(RequestRefusal, LeavesTheMessageAsItWas) {
  const TransportParts parts;
  Message message = GetParam().given().message();
  const Message before(message.payload.copy(), message.metadata.copy());
  const RequestReader reader(parts.options, parts.keys, parts.log);
  EXPECT_THROW(reader.readRequest(message, 0), RefusedRequest);
  EXPECT_TRUE(message.metadata == before.metadata);
  EXPECT_TRUE(message.payload == before.payload);
}

INSTANTIATE_TEST_SUITE_P(
    OfParts, RequestRefusal,
    testing::Values(
        Refusal{"NoId", [] { return get().without("requestId"); }, "No request Id"},
        Refusal{"NoHttp", [] { return get().without("http"); }, "No method"},
        Refusal{"NullHttp", [] { return having("http", data_t()); }, "No method"},
        Refusal{"HttpOfAnotherKind", [] { return having("http", textValue("GET /")); },
                "http must be a map"},
        Refusal{"NoMethod",
                [] {
                  return having("http", mapValue({{"path", "/"}}));
                },
                "No method"},
        Refusal{"NoPath",
                [] {
                  return having("http", mapValue({{"method", "GET"}}));
                },
                "No path"},
        Refusal{"MethodOfAnotherKind", [] { return having("http/method", data_t(1)); },
                "http.method must be a string"},
        Refusal{"NullMethod", [] { return having("http/method", data_t()); },
                "http.method must be a string"},
        Refusal{"PathOfAnotherKind", [] { return having("http/path", data_t(1)); },
                "http.path must be a string"},
        Refusal{"MethodInLowerCase", [] { return having("http/method", textValue("get")); },
                "Invalid method (must be GET, PUT, POST or DELETE): get"},
        Refusal{"UnknownMethod", [] { return having("http/method", textValue("PATCH")); },
                "Invalid method (must be GET, PUT, POST or DELETE): PATCH"},
        Refusal{"ControlInTheMethod", [] { return having("http/method", textValue("GET\n")); },
                "http.method must not hold control characters"},
        Refusal{"ControlInThePath", [] { return having("http/path", textValue("/a\r\nb")); },
                "http.path must not hold control characters"},
        Refusal{"TabInThePath", [] { return having("http/path", textValue("/a\tb")); },
                "http.path must not hold control characters"}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    OfTexts, RequestRefusal,
    testing::Values(
        Refusal{"HeadersOfAnotherKind", [] { return having("http/headers", data_t(1)); },
                "http.headers must be a map"},
        Refusal{"HeaderOfAnotherKind", [] { return having("http/headers/X-Count", data_t(3)); },
                "http.headers.X-Count must be a string"},
        Refusal{"HeaderNameOfAnotherKind", [] { return having("http/headers", numbered()); },
                "The names in http.headers must be strings"},
        Refusal{"HeaderNameThatIsNoToken", [] { return get().header("a b", "x"); },
                "http.headers.a b is not a valid header name"},
        Refusal{"EmptyHeaderName", [] { return get().header("", "x"); },
                "http.headers. is not a valid header name"},
        Refusal{"ControlInAHeader", [] { return get().header("X", "a\r\nY: b"); },
                "http.headers.X must not hold control characters"},
        Refusal{"ControlInAHeaderOfTheTransport", [] { return get().header("Connection", "a\n"); },
                "http.headers.Connection must not hold control characters"},
        Refusal{"UpperControlInAHeader", [] { return get().header("X", "a\u0085"); },
                "http.headers.X must not hold control characters"},
        Refusal{"HeaderBeyondLatin1", [] { return get().header("X", "\u20ac"); },
                "http.headers.X holds a character that ISO-8859-1 lacks"},
        Refusal{"InvisibleCharacterInAHeader", [] { return get().header("X", "a\u200b"); },
                "http.headers.X holds a character that ISO-8859-1 lacks"},
        Refusal{"QueryOfAnotherKind", [] { return having("http/queryString", textValue("a=b")); },
                "http.queryString must be a map"},
        Refusal{"QueryEntryOfAnotherKind", [] { return having("http/queryString/a", data_t(1)); },
                "http.queryString.a must be a string"},
        Refusal{"QueryNameOfAnotherKind", [] { return having("http/queryString", numbered()); },
                "The names in http.queryString must be strings"},
        Refusal{"CookiesOfAnotherKind", [] { return having("http/cookies", textValue("a=b")); },
                "http.cookies must be a map"},
        Refusal{"CookieOfAnotherKind", [] { return having("http/cookies/a", data_t(1)); },
                "http.cookies.a must be a string"},
        Refusal{"CookieNameThatIsNoToken", [] { return get().cookie("a b", "x"); },
                "http.cookies.a b is not a valid cookie name"},
        Refusal{"CookieWithASemicolon", [] { return get().cookie("a", "x; b=y"); },
                "http.cookies.a must not hold a semicolon"},
        Refusal{"ControlInACookie", [] { return get().cookie("a", "x\n"); },
                "http.cookies.a must not hold control characters"},
        Refusal{"CookieBeyondLatin1", [] { return get().cookie("a", "\u20ac"); },
                "http.cookies.a holds a character that ISO-8859-1 lacks"}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    OfOptions, RequestRefusal,
    testing::Values(
        Refusal{"CharsetOfAnotherKind", [] { return having("http/charset", data_t(1)); },
                "http.charset must be a string"},
        Refusal{"ControlInTheCharset", [] { return get().charset("a\tb"); },
                "http.charset must not hold control characters"},
        Refusal{"CharsetBeyondLatin1", [] { return get().charset("\u20ac"); },
                "http.charset holds a character that ISO-8859-1 lacks"},
        Refusal{"ContentTypeOfAnotherKind", [] { return having("http/contentType", data_t(1)); },
                "http.contentType must be a string"},
        Refusal{"ControlInTheContentType", [] { return get().contentType("a/b\n"); },
                "http.contentType must not hold control characters"},
        Refusal{"ContentTypeBeyondLatin1", [] { return get().contentType("\u20ac"); },
                "http.contentType holds a character that ISO-8859-1 lacks"},
        Refusal{"LimitOfAnotherKind", [] { return having("http/maxResponseKB", textValue("1")); },
                "http.maxResponseKB must be an integer"},
        Refusal{"UnknownPolicy", [] { return get().policy("CUT"); },
                "Invalid maxResponsePolicy in request"},
        Refusal{"PolicyOfAnotherKind", [] { return having("http/maxResponsePolicy", data_t(1)); },
                "Invalid maxResponsePolicy in request"},
        Refusal{"DeadlineOfAnotherKind", [] { return having("http/deadlineSecs", textValue("1")); },
                "http.deadlineSecs must be an integer"},
        Refusal{"DeadlineOfNothing", [] { return having("http/deadlineSecs", data_t(0)); },
                "http.deadlineSecs must be at least 1"},
        Refusal{"FormOfAnotherKind", [] { return having("http/form", data_t(1)); },
                "http.form must be a map"},
        Refusal{"PayloadOfText", [] { return get().payload(textValue("text")); }, payloadRefusal},
        Refusal{"PayloadOfANumber", [] { return get().payload(data_t(1)); }, payloadRefusal}),
    nameOf);

data_t nested(unsigned levels) {
  data_t value(textValue("bottom"));
  for (unsigned level = 0; level < levels; ++level) {
    map_t map;
    map.insert(textValue("in"), std::move(value));
    value = data_t(std::move(map));
  }
  return value;
}

TEST(RequestReading, RefusesADeepMessageBeforeItsOtherFaults) {
  const char* const text = "HTTPClient messages must not be nested deeper than 1000 levels";
  EXPECT_EQ(refusalOf(get().set("more", nested(maxNesting))), "not refused");
  EXPECT_EQ(refusalOf(get().set("more", nested(maxNesting + 1)).without("requestId")), text);
  EXPECT_EQ(refusalOf(get().payload(nested(maxNesting + 1)).without("http")), text);
}

}  // namespace
}  // namespace connectivity::plugins
