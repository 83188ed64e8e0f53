// The status items of a loaded transport after real exchanges. An answer is handed over before all
// of its figures are set, so most tests shut the transport down before they look.
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <Poco/DeflatingStream.h>
#include <gtest/gtest.h>

#include "tests/support/FakeClock.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

using Texts = std::vector<std::string>;

// "/status/404" is answered with that status and a body of five bytes, "/echo" with the request's
// body; at "/close" the connection ends without an answer, and "/stall" waits to be released.
class Peer {
 public:
  ScriptedServer& server() { return _server; }
  void release() { _released.set(); }

 private:
  void serve(Connection& connection) {
    while (const auto request = connection.readRequest()) {
      if (request->target == "/close") return;
      if (request->target == "/stall") connection.stallUntil(_released);
      answer(connection, *request);
    }
  }
  static void answer(Connection& connection, const RecordedRequest& request) {
    const std::string prefix = "/status/";
    if (request.target == "/echo") {
      connection.sendResponse(200, {}, request.body);
    } else if (request.target == "/redirect") {
      connection.sendResponse(303, {{"Location", "/status/200"}}, "moved");
    } else if (request.target == "/status/204" || request.target == "/status/304") {
      connection.send(responseHead(std::stoi(request.target.substr(prefix.size())), {}));
    } else if (request.target.starts_with(prefix)) {
      connection.sendResponse(std::stoi(request.target.substr(prefix.size())), {}, "12345");
    } else {
      connection.sendResponse(200, {}, "");
    }
  }

  Event _released{"the stalled request's release"};
  ScriptedServer _server{[this](Connection& connection) { serve(connection); }};
};

class MetricsOnTheWire : public ::testing::Test {
 protected:
  explicit MetricsOnTheWire(int workers = 1, bool start = true) {
    PluginOptions options;
    options.pluginName = "name";
    options.chainId = "id";
    options.start = start;
    _plugin = std::make_unique<PluginUnderTest>(Config(_peer.server().port()).numClients(workers),
                                                options);
  }

  std::string item(const std::string& name) {
    return plugin().status().text("name.id." + name).value_or("(absent)");
  }
  Texts history(const std::string& name) { return plugin().status().history("name.id." + name); }
  Answer ask(const Request& request) { return plugin().request(request); }
  // Afterwards every figure is set.
  void settle() { ASSERT_EQ(plugin().shutdown(), 0); }
  PluginUnderTest& plugin() { return *_plugin; }
  ScriptedServer& server() { return _peer.server(); }
  void release() { _peer.release(); }

 private:
  Peer _peer;
  std::unique_ptr<PluginUnderTest> _plugin;
};

class MetricsOfFourWorkers : public MetricsOnTheWire {
 protected:
  MetricsOfFourWorkers() : MetricsOnTheWire(4) {}
};

class MetricsBeforeStart : public MetricsOnTheWire {
 protected:
  MetricsBeforeStart() : MetricsOnTheWire(2, false) {}
};

// --- Status -------------------------------------------------------------------------------------

TEST_F(MetricsBeforeStart, ShowStartingThenTheOutcomeOfTheLatestExchange) {
  EXPECT_EQ(item("status"), "STARTING");
  ASSERT_EQ(plugin().start(), 0);
  EXPECT_EQ(item("status"), "ONLINE");
  EXPECT_EQ(ask(Request("GET", "/close")).status(), 400);
  EXPECT_EQ(item("status"), "FAILED");
  EXPECT_EQ(ask(Request("GET", "/status/200")).status(), 200);
  EXPECT_EQ(item("status"), "ONLINE");
  EXPECT_EQ(history("status"), (Texts{"STARTING", "ONLINE", "FAILED", "ONLINE"}));
}

TEST_F(MetricsOnTheWire, CountErrorsOfTheServerAsAnExchangeThatWorked) {
  ask(Request("GET", "/close"));
  EXPECT_EQ(ask(Request("GET", "/status/500")).status(), 500);
  EXPECT_EQ(item("status"), "ONLINE");
}

TEST_F(MetricsOnTheWire, ShowFailedAfterABodyBeyondTheLimit) {
  const Answer answer =
      ask(Request("POST", "/echo").body(std::string(2000, 'x')).limit(1).policy("REJECT"));
  EXPECT_EQ(answer.status(), 413);
  EXPECT_EQ(item("status"), "FAILED");
}

// --- Counters -----------------------------------------------------------------------------------

std::vector<Request> mixedRequests() {
  std::vector<Request> requests;
  for (int round = 0; round < 10; ++round) {
    for (const char* const path : {"/status/200", "/status/404", "/status/204", "/status/500",
                                   "/status/304", "/close", "/redirect", "/%zz"}) {
      requests.emplace_back("GET", path);
    }
    requests.emplace_back("PATCH", "/echo");
    requests.push_back(Request("POST", "/echo").body("abc"));
  }
  return requests;
}

TEST_F(MetricsOfFourWorkers, AgreeWithWhatTheHostSaw) {
  const std::vector<Request> requests = mixedRequests();
  std::vector<Message> batch;
  batch.reserve(requests.size());
  for (const Request& request : requests) batch.push_back(request.message());
  ASSERT_EQ(plugin().send(std::move(batch)), 0);
  int successes = 0;
  int errors = 0;
  for (const Answer& answer : plugin().waitForAnswers(100)) {
    ++(answer.status() >= 200 && answer.status() <= 399 ? successes : errors);
  }
  settle();
  EXPECT_EQ(successes, 50);
  EXPECT_EQ(errors, 50);
  EXPECT_EQ(item("responsesTowardsHost"), "50");
  EXPECT_EQ(item("errorsTowardsHost"), "50");
}

// What an answer tells of the exchange is shown before it; that it was handed over, afterwards.
TEST_F(MetricsOnTheWire, ShowASampleBeforeTheHandOverAndTheCountAfterIt) {
  Texts inside;
  plugin().onDelivery([&](const Answer&) {
    inside = {item("responseSizeMaxInLastHourBytes"), item("responsesTowardsHost")};
  });
  ask(Request("GET", "/status/200"));
  settle();
  EXPECT_EQ(inside, (Texts{"5", "0"}));
  EXPECT_EQ(item("responsesTowardsHost"), "1");
}

TEST_F(MetricsOnTheWire, CountAnAnswerThatTheHostRefused) {
  plugin().setDeliveryResult(1);
  ask(Request("GET", "/status/200"));
  settle();
  EXPECT_EQ(item("responsesTowardsHost"), "1");
  EXPECT_EQ(item("errorsTowardsHost"), "0");
}

// --- Request sizes ------------------------------------------------------------------------------

TEST_F(MetricsOnTheWire, AverageTheSizesOfRequestBodies) {
  ask(Request("POST", "/x").body(std::string(500, 'x')));
  ask(Request("POST", "/x").body(std::string(1500, 'x')));
  settle();
  EXPECT_EQ(history("requestSizeEWMAShortBytes"), (Texts{"0", "500", "1000"}));
  EXPECT_EQ(history("requestSizeEWMALongBytes"), (Texts{"0", "500", "600"}));
  EXPECT_EQ(history("requestSizeMaxInLastHourBytes"), (Texts{"0", "500", "1500"}));
}

TEST_F(MetricsOnTheWire, TakeRequestSizesAfterCompression) {
  ask(Request("POST", "/x").body(std::string(5000, 'x')).header("Content-Encoding", "gzip"));
  settle();
  const std::size_t sent = server().request(0).body.size();
  EXPECT_LT(sent, 5000U);
  EXPECT_EQ(item("requestSizeEWMAShortBytes"), std::to_string(sent));
  EXPECT_EQ(item("requestSizeMaxInLastHourBytes"), std::to_string(sent));
}

TEST_F(MetricsOnTheWire, TakeTheSizeOfAFormAsItWasSent) {
  ask(Request("POST", "/x").form().field("a", "b").file("f", std::string(100, 'x')));
  settle();
  EXPECT_EQ(item("requestSizeEWMAShortBytes"), std::to_string(server().request(0).body.size()));
}

TEST_F(MetricsOnTheWire, TakeAFailedExchangeAsASampleOfItsFullBody) {
  ask(Request("POST", "/close").body(std::string(700, 'x')));
  settle();
  EXPECT_EQ(server().requestCount(), 2U) << "it was retried";
  EXPECT_EQ(history("requestSizeEWMAShortBytes"), (Texts{"0", "700"}));
  EXPECT_EQ(history("requestSizeMaxInLastHourBytes"), (Texts{"0", "700"}));
}

TEST(MetricsWithoutAServer, TakeAFailedConnectionAsASampleOfTheFullBody) {
  PluginUnderTest plugin{Config(unusedPort())};
  EXPECT_EQ(plugin.request(Request("POST", "/x").body(std::string(700, 'x'))).status(), 400);
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_EQ(plugin.statusItem(".requestSizeEWMAShortBytes"), "700");
  EXPECT_EQ(plugin.statusItem(".status"), "FAILED");
}

TEST_F(MetricsOnTheWire, TakeARedirectedRequestAsOneSampleOfItsOwnBody) {
  EXPECT_EQ(ask(Request("POST", "/redirect").body(std::string(300, 'x'))).status(), 200);
  settle();
  EXPECT_EQ(server().requestCount(), 2U);
  EXPECT_EQ(history("requestSizeEWMAShortBytes"), (Texts{"0", "300"}));
  EXPECT_EQ(history("responsesTowardsHost"), (Texts{"0", "1"}));
}

TEST_F(MetricsOnTheWire, TakeARequestWithoutABodyAsASampleOfSizeZero) {
  ask(Request("POST", "/x").body(std::string(100, 'x')));
  ask(Request("GET", "/x"));
  settle();
  EXPECT_EQ(item("requestSizeEWMAShortBytes"), "50");
  EXPECT_EQ(item("requestSizeEWMALongBytes"), "90");
}

// --- Refused requests ---------------------------------------------------------------------------

TEST_F(MetricsOnTheWire, LeaveStatusAndSizesAloneForRefusedRequests) {
  ask(Request("POST", "/close").body(std::string(700, 'x')));
  ASSERT_EQ(item("status"), "FAILED");
  const std::vector<Request> refused = {
      Request("PATCH", "/x").body("abc"),
      Request("GET", "/%zz"),
      Request("POST", "/x").payload(textValue("text")),
      Request("POST", "/x").body("abc").header("Content-Encoding", "br"),
      Request("GET", "/x").header("X-A", "a\nb"),
      Request("GET", "/x").without("requestId")};
  for (const Request& request : refused) EXPECT_EQ(ask(request).status(), 400);
  settle();
  EXPECT_EQ(server().requestCount(), 2U) << "only the first was sent, twice";
  EXPECT_EQ(history("status"), (Texts{"STARTING", "ONLINE", "FAILED"}));
  EXPECT_EQ(history("requestSizeEWMAShortBytes"), (Texts{"0", "700"}));
  EXPECT_EQ(history("requestSizeMaxInLastHourBytes"), (Texts{"0", "700"}));
}

TEST_F(MetricsOnTheWire, CountRefusedRequestsAsErrors) {
  ask(Request("PATCH", "/x"));
  ask(Request("GET", "/%zz"));
  settle();
  EXPECT_EQ(item("errorsTowardsHost"), "2");
}

// --- Latency ------------------------------------------------------------------------------------

// While a request is at the server, the clock moves on by as many seconds as its path says.
class LatencyOnTheWire : public ::testing::Test {
 protected:
  Answer ask(const char* path) { return _plugin.request(Request("GET", path)); }
  void onDelivery(PluginUnderTest::DeliveryHook hook) { _plugin.onDelivery(std::move(hook)); }
  Texts history(const std::string& name) {
    return _plugin.status().history("plugin.chain." + name);
  }

 private:
  void serve(Connection& connection) {
    while (const auto request = connection.readRequest()) {
      _clock.advance(std::stoi(request->target.substr(1)));
      if (request->target.ends_with("/redirect")) {
        connection.sendResponse(302, {{"Location", "/2"}});
      } else {
        connection.sendResponse(request->target.ends_with("/missing") ? 404 : 200);
      }
    }
  }

  FakeClock _clock;
  ScriptedServer _server{[this](Connection& connection) { serve(connection); }};
  PluginUnderTest _plugin{Config(_server.port())};
};

TEST_F(LatencyOnTheWire, IsAveragedOverSuccessesAndErrorsAlike) {
  ask("/1");
  EXPECT_EQ(ask("/2/missing").status(), 404);
  EXPECT_EQ(history("requestLatencyEWMAShortMillis"), (Texts{"0", "1000", "1500"}));
  EXPECT_EQ(history("requestLatencyEWMALongMillis"), (Texts{"0", "1000", "1100"}));
}

TEST_F(LatencyOnTheWire, IsShownBeforeTheHandOver) {
  Texts inside;
  onDelivery([&](const Answer&) { inside = history("requestLatencyEWMAShortMillis"); });
  ask("/1");
  EXPECT_EQ(inside, (Texts{"0", "1000"}));
}

TEST_F(LatencyOnTheWire, CountsRefusalsToo) {
  ask("/1");
  EXPECT_EQ(ask("/%zz").status(), 400);
  EXPECT_EQ(history("requestLatencyEWMAShortMillis"), (Texts{"0", "1000", "500"}));
  EXPECT_EQ(history("requestLatencyEWMALongMillis"), (Texts{"0", "1000", "900"}));
}

TEST_F(LatencyOnTheWire, OfARedirectedRequestSpansAllItsExchanges) {
  EXPECT_EQ(ask("/1/redirect").status(), 200);
  EXPECT_EQ(history("requestLatencyEWMAShortMillis"), (Texts{"0", "3000"}));
}

// --- Response sizes -----------------------------------------------------------------------------

TEST_F(MetricsOnTheWire, TakeResponseSizesOfSuccessesOnly) {
  ask(Request("POST", "/echo").body(std::string(500, 'x')));
  for (const char* const path : {"/status/404", "/status/500", "/status/304", "/close"}) {
    ask(Request("GET", path));
  }
  settle();
  EXPECT_EQ(history("responseSizeEWMAShortBytes"), (Texts{"0", "500"}));
  EXPECT_EQ(history("responseSizeEWMALongBytes"), (Texts{"0", "500"}));
  EXPECT_EQ(history("responseSizeMaxInLastHourBytes"), (Texts{"0", "500"}));
}

TEST_F(MetricsOnTheWire, TakeResponseSizesAsTheyAreDelivered) {
  ScriptedServer coding;
  std::ostringstream coded;
  Poco::DeflatingOutputStream coder(coded, Poco::DeflatingStreamBuf::STREAM_GZIP);
  coder << std::string(4000, 'x');
  coder.close();
  coding.answer("/x", {200, {{"Content-Encoding", "gzip"}}, coded.str()});
  PluginUnderTest plugin(Config(coding.port()));
  const Answer whole = plugin.request(Request("GET", "/x"));
  const Answer cut = plugin.request(Request("GET", "/x").limit(1).policy("TRUNCATE_END"));
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_EQ(whole.body().size(), 4000U);
  EXPECT_LT(cut.body().size(), 4000U);
  EXPECT_EQ(plugin.status().history("plugin.chain.responseSizeEWMAShortBytes"),
            (Texts{"0", "4000", std::to_string((4000 + cut.body().size()) / 2)}));
}

// --- The other items ----------------------------------------------------------------------------

TEST_F(MetricsOfFourWorkers, ShowTheNumberOfWorkersAndTheKeysOfTheIndicators) {
  EXPECT_EQ(item("numClients"), "4");
  EXPECT_EQ(plugin().status().items().size(), 16U);
  EXPECT_EQ(item("KPIs"),
            "name.id.requestLatencyEWMAShortMillis,name.id.requestLatencyEWMALongMillis,"
            "name.id.requestSizeEWMAShortBytes,name.id.requestSizeEWMALongBytes,"
            "name.id.responseSizeEWMAShortBytes,name.id.responseSizeEWMALongBytes,"
            "name.id.requestSizeMaxInLastHourBytes,name.id.responseSizeMaxInLastHourBytes,"
            "name.id.concurrencyUtilizationPercent,name.id.queueSize");
}

TEST_F(MetricsOnTheWire, ShowTheLengthOfTheQueueAtTheLatestBatchAndNotNow) {
  plugin().send(Request("GET", "/stall"));
  server().waitForRequests(1);
  std::vector<Message> batch;
  batch.reserve(3);
  for (int i = 0; i < 3; ++i) batch.push_back(Request("GET", "/x").message());
  ASSERT_EQ(plugin().send(std::move(batch)), 0);
  EXPECT_EQ(item("queueSize"), "3");
  release();
  plugin().waitForAnswers(4);
  EXPECT_EQ(item("queueSize"), "3");
}

TEST_F(MetricsOfFourWorkers, CountTheRequestsThatFlushTheQueueFirst) {
  ask(Request("GET", "/x"));
  ask(Request("GET", "/x").flush());
  ask(Request("GET", "/x").flush());
  settle();
  EXPECT_EQ(item("serializedRequests"), "2");
}

TEST_F(MetricsOnTheWire, OfOneWorkerNeverShowAnotherUtilizationThanFull) {
  for (int i = 0; i < 3; ++i) ask(Request("GET", "/x"));
  settle();
  EXPECT_EQ(history("concurrencyUtilizationPercent"), (Texts{"100"}));
}

TEST_F(MetricsOfFourWorkers, ShowNoUtilizationWhereOneWorkerDoesItAll) {
  // A request's time counts before the worker takes the next one, so the third batch sees the
  // first's.
  for (int i = 0; i < 3; ++i) ask(Request("GET", "/x").key("one"));
  EXPECT_EQ(item("concurrencyUtilizationPercent"), "0");
}

TEST(MetricsOfATransport, AreGoneOnceItIsDestroyed) {
  PluginUnderTest plugin{Config(unusedPort())};
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_EQ(plugin.status().items().size(), 16U);
  EXPECT_EQ(plugin.destroy(), 0);
  EXPECT_TRUE(plugin.status().items().empty());
}

}  // namespace
}  // namespace test_support
