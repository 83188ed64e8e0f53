// Requests that are answered before anything is sent.
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "orrery/Platform.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

constexpr const char* payloadText =
    "HTTPClient payloads must be binary buffers or dictionary having string key and either string "
    "or binary value (did you mean to use the StringCodec to encode a string to a buffer?)";

struct Refusal {
  const char* name;
  std::function<Request()> request;
  const char* text;
};

std::string nameOf(const ::testing::TestParamInfo<Refusal>& info) { return info.param.name; }

Request get() { return {"GET", "/x"}; }

// A map with a name that is no string.
data_t mapWithANumberAsName() {
  map_t map;
  map.insert(data_t(7), data_t("b"));
  return data_t(std::move(map));
}

data_t hostObject() {
  Message flush = flushMessage(std::make_shared<Event>());
  return std::move(*flush.metadata.findText("qor.controlObject"));
}

class RefusedRequest : public ::testing::TestWithParam<Refusal> {};

TEST_P(RefusedRequest, IsAnsweredWithItsTextAndNeverSent) {
  ScriptedServer server;
  PluginUnderTest plugin(Config(server.port()));
  const auto statusBefore = plugin.statusItem(".status");
  const Answer answer = plugin.request(GetParam().request());
  EXPECT_EQ(answer.status(), 400);
  EXPECT_EQ(answer.reason(), GetParam().text);
  EXPECT_EQ(answer.body(), GetParam().text);
  EXPECT_EQ(answer.text("http/contentType"), "text/plain");
  EXPECT_EQ(answer.text("http/charset"), "utf-8");
  EXPECT_FALSE(answer.has("contentType"));
  EXPECT_FALSE(answer.has("charset"));
  EXPECT_EQ(server.connectionCount(), 0U);
  EXPECT_EQ(plugin.statusItem(".status"), statusBefore);
  const auto line = plugin.log().find("Caught exception processing a request: ");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->level, QOR_LOG_WARN);
}

TEST_P(RefusedRequest, LeavesTheWorkerReadyForTheNext) {
  ScriptedServer server;
  server.answer("/x", {});
  PluginUnderTest plugin(Config(server.port()));
  plugin.request(GetParam().request());
  EXPECT_EQ(plugin.request(Request("GET", "/x").id(2)).status(), 200);
  EXPECT_EQ(plugin.answerCount(), 2U);
}

INSTANTIATE_TEST_SUITE_P(
    Metadata, RefusedRequest,
    ::testing::Values(
        Refusal{"WithoutRequestId", [] { return get().without("requestId"); }, "No request Id"},
        Refusal{"WithoutHttp", [] { return get().without("http"); }, "No method"},
        Refusal{"WithHttpThatIsNoMap", [] { return get().set("http", data_t("text")); },
                "http must be a map"},
        Refusal{"WithoutMethod",
                [] { return get().without("http").set("http/path", data_t("/x")); }, "No method"},
        Refusal{"WithoutPath",
                [] { return get().without("http").set("http/method", data_t("GET")); }, "No path"},
        Refusal{"WithANumberAsMethod", [] { return get().set("http/method", data_t(7)); },
                "http.method must be a string"},
        Refusal{"WithANumberAsPath", [] { return get().set("http/path", data_t(7)); },
                "http.path must be a string"},
        Refusal{"WithHeadersThatAreNoMap", [] { return get().set("http/headers", data_t(7)); },
                "http.headers must be a map"},
        Refusal{"WithAQueryThatIsNoMap", [] { return get().set("http/queryString", data_t(7)); },
                "http.queryString must be a map"},
        Refusal{"WithCookiesThatAreNoMap", [] { return get().set("http/cookies", data_t(7)); },
                "http.cookies must be a map"},
        Refusal{"WithAFormThatIsNoMap", [] { return get().set("http/form", data_t(7)); },
                "http.form must be a map"},
        Refusal{"WithANumberAsHeader", [] { return get().set("http/headers/X-Count", data_t(7)); },
                "http.headers.X-Count must be a string"},
        Refusal{"WithANumberAsQueryParameter",
                [] { return get().set("http/queryString/a", data_t(7)); },
                "http.queryString.a must be a string"},
        Refusal{"WithANumberAsCookie", [] { return get().set("http/cookies/a", data_t(7)); },
                "http.cookies.a must be a string"},
        Refusal{"WithANumberAsHeaderName",
                [] { return get().set("http/headers", mapWithANumberAsName()); },
                "The names in http.headers must be strings"},
        Refusal{"WithANumberAsQueryName",
                [] { return get().set("http/queryString", mapWithANumberAsName()); },
                "The names in http.queryString must be strings"},
        Refusal{"WithANumberAsCookieName",
                [] { return get().set("http/cookies", mapWithANumberAsName()); },
                "The names in http.cookies must be strings"},
        Refusal{"WithANumberAsContentType", [] { return get().set("http/contentType", data_t(7)); },
                "http.contentType must be a string"},
        Refusal{"WithANumberAsCharset",
                [] { return get().contentType("text/plain").set("http/charset", data_t(7)); },
                "http.charset must be a string"},
        Refusal{"WithANumberAsCharsetThatNothingNeeds",
                [] { return get().set("http/charset", data_t(7)); },
                "http.charset must be a string"},
        Refusal{"WithATextAsLimit", [] { return get().set("http/maxResponseKB", data_t("5")); },
                "http.maxResponseKB must be an integer"},
        Refusal{"WithAnUnknownPolicy", [] { return get().policy("truncate_end"); },
                "Invalid maxResponsePolicy in request"},
        Refusal{"WithANumberAsPolicy",
                [] { return get().set("http/maxResponsePolicy", data_t(7)); },
                "Invalid maxResponsePolicy in request"}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Method, RefusedRequest,
    ::testing::Values(Refusal{"ThatIsUnknown", [] { return Request("PATCH", "/x"); },
                              "Invalid method (must be GET, PUT, POST or DELETE): PATCH"},
                      Refusal{"InLowerCase", [] { return Request("get", "/x"); },
                              "Invalid method (must be GET, PUT, POST or DELETE): get"},
                      Refusal{"ThatIsEmpty", [] { return Request("", "/x"); },
                              "Invalid method (must be GET, PUT, POST or DELETE): "},
                      Refusal{"ThatHoldsALineFeed", [] { return Request("GET\r\nX: y", "/x"); },
                              "http.method must not hold control characters"}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    WireText, RefusedRequest,
    ::testing::Values(
        Refusal{"WithALineFeedInThePath", [] { return Request("GET", "/x\r\nX: y"); },
                "http.path must not hold control characters"},
        Refusal{"WithATabInThePath", [] { return Request("GET", "/x\ty"); },
                "http.path must not hold control characters"},
        Refusal{"WithALineFeedInAHeader", [] { return get().header("X-A", "b\nX-B: c"); },
                "http.headers.X-A must not hold control characters"},
        Refusal{"WithACarriageReturnInAHeader", [] { return get().header("X-A", "b\rc"); },
                "http.headers.X-A must not hold control characters"},
        Refusal{"WithADeleteCharacterInAHeader", [] { return get().header("X-A", "b\x7F"); },
                "http.headers.X-A must not hold control characters"},
        Refusal{"WithAHeaderNameThatIsNoToken", [] { return get().header("X A", "b"); },
                "http.headers.X A is not a valid header name"},
        Refusal{"WithAnEmptyHeaderName", [] { return get().header("", "b"); },
                "http.headers. is not a valid header name"},
        Refusal{"WithAColonInAHeaderName", [] { return get().header("X:", "b"); },
                "http.headers.X: is not a valid header name"},
        Refusal{"WithACharacterThatLatin1Lacks", [] { return get().header("X-A", "\u20ac"); },
                "http.headers.X-A holds a character that ISO-8859-1 lacks"},
        Refusal{"WithALineFeedInACookie", [] { return get().cookie("c", "d\ne"); },
                "http.cookies.c must not hold control characters"},
        Refusal{"WithALineFeedInACookieName", [] { return get().cookie("c\nd", "e"); },
                "http.cookies.c\nd is not a valid cookie name"},
        Refusal{"WithATabInACookieName", [] { return get().cookie("c\td", "e"); },
                "http.cookies.c\td is not a valid cookie name"},
        Refusal{"WithACookieThatLatin1Lacks", [] { return get().cookie("c", "\u20ac"); },
                "http.cookies.c holds a character that ISO-8859-1 lacks"},
        Refusal{"WithALineFeedInTheCharset",
                [] { return get().contentType("text/plain").charset("utf-8\nX: y"); },
                "http.charset must not hold control characters"},
        Refusal{"WithAContentTypeThatLatin1Lacks", [] { return get().contentType("a/\u20ac"); },
                "http.contentType holds a character that ISO-8859-1 lacks"},
        Refusal{"WithALineFeedInTheContentType", [] { return get().contentType("a/b\nX: y"); },
                "http.contentType must not hold control characters"},
        Refusal{"WithABrokenEscapeInThePath", [] { return Request("GET", "/%zz"); },
                "Invalid percent-encoding in http.path: /%zz"},
        Refusal{"WithAnEscapeCutShort", [] { return Request("GET", "/a%2"); },
                "Invalid percent-encoding in http.path: /a%2"},
        Refusal{"WithABrokenEscapeInTheQuery", [] { return Request("GET", "/a?b=%s"); },
                "Invalid percent-encoding in the query of http.path: b=%s"}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Payload, RefusedRequest,
    ::testing::Values(
        Refusal{"ThatIsAString", [] { return Request("POST", "/x").payload(data_t("text")); },
                payloadText},
        Refusal{"ThatIsABorrowedString",
                [] { return Request("POST", "/x").payload(data_t::borrow("text")); }, payloadText},
        Refusal{"ThatIsANumber", [] { return Request("POST", "/x").payload(data_t(7)); },
                payloadText},
        Refusal{"ThatIsADouble", [] { return Request("POST", "/x").payload(data_t(1.5)); },
                payloadText},
        Refusal{"ThatIsADecimal",
                [] { return Request("POST", "/x").payload(data_t(connectivity::decimal_t{1})); },
                payloadText},
        Refusal{"ThatIsAnObjectOfTheHosts",
                [] { return Request("POST", "/x").payload(hostObject()); }, payloadText},
        Refusal{"ThatIsABoolean", [] { return Request("POST", "/x").payload(data_t(true)); },
                payloadText},
        Refusal{"ThatIsAList",
                [] { return Request("POST", "/x").payload(data_t(connectivity::list_t())); },
                payloadText},
        Refusal{"ThatIsAMapButNoForm",
                [] {
                  return Request("POST", "/x").payload(mapValue({{"a", "b"}}));
                },
                payloadText},
        Refusal{"WithAnUnsupportedCoding",
                [] { return Request("POST", "/x").body("a").header("Content-Encoding", "br"); },
                "Unsupported Content-Encoding, dropping HTTP request."},
        Refusal{
            "ThatIsAFormWithACoding",
            [] { return Request("POST", "/x").field("a", "b").header("Content-Encoding", "gzip"); },
            "HTTPClient forms cannot be sent with Content-Encoding gzip"}),
    nameOf);

// --- What the answer to a refused request carries -----------------------------------------------

TEST(RefusedRequestAnswer, CarriesWhatIsKnown) {
  ScriptedServer server;
  PluginUnderTest plugin(Config(server.port()));
  const Answer answer =
      plugin.request(Request("PATCH", "/x").id(17).set("requestSentTime", data_t(1.5)));
  EXPECT_EQ(answer.id(), 17);
  EXPECT_EQ(answer.text("requestSentTime"), "1.5");
  EXPECT_EQ(answer.text("http/method"), "PATCH");
  EXPECT_EQ(answer.text("http/path"), "/x");
}

TEST(RefusedRequestAnswer, HasEmptyValuesForWhatIsNotKnown) {
  ScriptedServer server;
  PluginUnderTest plugin(Config(server.port()));
  const Answer answer = plugin.request(Request("GET", "/x").without("http").without("requestId"));
  for (const char* const path : {"requestId", "requestSentTime", "http/method", "http/path"}) {
    ASSERT_TRUE(answer.has(path)) << path;
    EXPECT_TRUE(answer.find(path)->empty()) << path;
  }
}

TEST(RefusedRequestAnswer, IsNoSampleOfRequestSizes) {
  ScriptedServer server;
  server.answer("/x", {});
  PluginUnderTest plugin(Config(server.port()));
  plugin.request(Request("POST", "/x").body(std::string(1000, 'x')));
  plugin.request(Request("POST", "/%zz").body("small"));
  // The one worker has done with a request, its metrics included, when it answers the next.
  plugin.request(Request("PATCH", "/x"));
  for (const char* const item : {".requestSizeEWMAShortBytes", ".requestSizeEWMALongBytes",
                                 ".requestSizeMaxInLastHourBytes"}) {
    EXPECT_EQ(plugin.statusItem(item), "1000") << item;
  }
}

TEST(FailedRequest, IsASampleOfRequestSizesWithItsWholeBody) {
  PluginUnderTest plugin{Config(unusedPort())};
  EXPECT_EQ(plugin.request(Request("POST", "/x").body(std::string(700, 'x'))).status(), 400);
  plugin.request(Request("PATCH", "/x"));
  EXPECT_EQ(plugin.statusItem(".requestSizeMaxInLastHourBytes"), "700");
}

// A second goes by whenever somebody looks.
class TickingClock final : public orrery::Clock {
 public:
  TickingClock() : _previous(orrery::Platform::replaceClock(this)) {}
  ~TickingClock() override { orrery::Platform::replaceClock(_previous); }
  TickingClock(const TickingClock&) = delete;
  TickingClock& operator=(const TickingClock&) = delete;

  double relativeHighResTimeFloat() const noexcept override {
    return static_cast<double>(_ticks.fetch_add(1));
  }
  std::int64_t sysTime() const noexcept override { return 1'700'000'000'000; }

 private:
  mutable std::atomic<int> _ticks{1};
  const orrery::Clock* _previous;
};

TEST(RefusedRequestAnswer, CountsWithItsTrueLatency) {
  const TickingClock clock;
  PluginUnderTest plugin{Config(unusedPort())};
  plugin.request(Request("PATCH", "/x"));
  EXPECT_GE(std::stoll(plugin.statusItem(".requestLatencyEWMAShortMillis")), 1000);
}

}  // namespace
}  // namespace test_support
