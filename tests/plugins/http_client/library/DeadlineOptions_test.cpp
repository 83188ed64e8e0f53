// Where the deadline of a request is given, and which values it takes.
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Expectations.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

using namespace std::chrono_literals;

TEST(DeadlineOfOneRequest, IsNoneOfTheNext) {
  ScriptedServer server([](Connection& connection) {
    while (const auto request = connection.readRequest()) {
      if (request->target == "/slow") connection.linger(1500ms);
      connection.sendResponse(200, {}, request->target);
    }
  });
  PluginUnderTest plugin(Config(server.port()).numClients(1));
  EXPECT_EQ(plugin.request(Request("GET", "/x").set("http/deadlineSecs", data_t(1))).body(), "/x");
  EXPECT_EQ(plugin.request(Request("GET", "/slow")).body(), "/slow");
}

TEST(DeadlineOfOneRequest, TakesThePlaceOfTheConfigured) {
  ScriptedServer server([](Connection& connection) {
    while (const auto request = connection.readRequest()) {
      connection.linger(1500ms);
      connection.sendResponse(200, {}, request->target);
    }
  });
  PluginUnderTest plugin(Config(server.port()).set("deadlineSecs", 1));
  EXPECT_EQ(plugin.request(Request("GET", "/x").set("http/deadlineSecs", data_t(3600))).body(),
            "/x");
  expectError(plugin.request(Request("GET", "/x")), "Deadline exceeded");
}

TEST(DeadlineOfOneRequest, ThatIsNullIsNone) {
  ScriptedServer server(answerWithTarget);
  PluginUnderTest plugin{Config(server.port())};
  EXPECT_EQ(plugin.request(Request("GET", "/x").set("http/deadlineSecs", data_t())).body(), "/x");
}

TEST(DeadlineOfOneRequest, ThatIsVeryLongIsAsGoodAsNone) {
  ScriptedServer server(answerWithTarget);
  PluginUnderTest plugin{Config(server.port())};
  const data_t longest(static_cast<long long>(INT64_MAX));
  EXPECT_EQ(plugin.request(Request("GET", "/x").set("http/deadlineSecs", longest.copy())).body(),
            "/x");
}

TEST(DeadlineOfOneRequest, OfTheWrongKindOrRangeIsRefused) {
  ScriptedServer server(answerWithTarget);
  PluginUnderTest plugin{Config(server.port())};
  const std::vector<std::function<data_t()>> faults = {
      [] { return data_t(0); },    [] { return data_t(-1); },  [] { return data_t(1.5); },
      [] { return data_t(true); }, [] { return data_t("1"); }, [] { return data_t(map_t()); }};
  for (const auto& fault : faults) {
    expectErrorNaming(plugin.request(Request("GET", "/x").set("http/deadlineSecs", fault())),
                      "http.deadlineSecs");
  }
  EXPECT_EQ(server.connectionCount(), 0U);
}

TEST(ConfiguredDeadline, OfTheWrongKindOrRangeFailsTheCreation) {
  EXPECT_EQ(creationFailure(Config(80).set("deadlineSecs", 0)),
            "HTTPClient configuration deadlineSecs \"0\" is not in the range at least 1");
  EXPECT_EQ(creationFailure(Config(80).set("deadlineSecs", -1)),
            "HTTPClient configuration deadlineSecs \"-1\" is not in the range at least 1");
  EXPECT_EQ(creationFailure(Config(80).set("deadlineSecs", true)),
            "HTTPClient configuration deadlineSecs must be an integer but it's actually boolean");
}

TEST(ConfiguredDeadline, MayBeATextThatIsAnInteger) {
  EXPECT_EQ(creationFailure(Config(80).set("deadlineSecs", "5")), std::nullopt);
}

}  // namespace
}  // namespace test_support
