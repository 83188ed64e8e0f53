// Messages nested deeper than any honest one: refused for that, before anything else is said about
// them, and without harm to any thread's stack.
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Expectations.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

using connectivity::list_t;

constexpr int mostLevels = 1000;
// Beyond what any recursion would survive on a thread's stack.
constexpr int farTooMany = 200'000;
constexpr const char* payloadText =
    "HTTPClient payloads must be binary buffers or dictionary having string key and either string "
    "or binary value (did you mean to use the StringCodec to encode a string to a buffer?)";

// Lists in lists; so many of them.
data_t lists(int levels) {
  data_t value;
  for (int level = 0; level < levels; ++level) {
    list_t list;
    if (level > 0) list.push_back(std::move(value));
    value = data_t(std::move(list));
  }
  return value;
}

// Maps as values of maps.
data_t maps(int levels) {
  data_t value;
  for (int level = 0; level < levels; ++level) {
    map_t map;
    if (level > 0) map.insert(data_t("m"), std::move(value));
    value = data_t(std::move(map));
  }
  return value;
}

// Maps as keys of maps.
data_t keys(int levels) {
  data_t value;
  for (int level = 0; level < levels; ++level) {
    map_t map;
    if (level > 0) map.insert(std::move(value), data_t(1));
    value = data_t(std::move(map));
  }
  return value;
}

// Each in turn.
data_t mixed(int levels) {
  data_t value;
  for (int level = 0; level < levels; ++level) {
    list_t list;
    map_t map;
    if (level % 3 == 0) list.push_back(std::move(value));
    if (level % 3 == 1) map.insert(data_t("m"), std::move(value));
    if (level % 3 == 2) map.insert(std::move(value), data_t(1));
    value = level % 3 == 0 ? data_t(std::move(list)) : data_t(std::move(map));
  }
  return value;
}

struct Shape {
  const char* name;
  std::function<data_t(int)> build;
};

std::string nameOf(const ::testing::TestParamInfo<Shape>& info) { return info.param.name; }

// The values are moved into the message: copies would be deep too.
Message messageOf(Request request, data_t&& payload) {
  Message message = request.message();
  message.payload = std::move(payload);
  return message;
}

Message messageWith(Request request, const char* key, data_t&& value) {
  Message message = request.message();
  put(message.metadata, {key}, std::move(value));
  return message;
}

void expectTooDeep(const Answer& answer) {
  expectError(answer);
  // "... deeper than 1000 levels", or "1,000".
  EXPECT_NE(answer.reason().find("nested deeper than 1"), std::string::npos) << answer.reason();
  EXPECT_NE(answer.reason().find("000 levels"), std::string::npos) << answer.reason();
}

class Depth : public ::testing::TestWithParam<Shape> {
 protected:
  Depth() : _plugin(Config(_server.port()).numClients(1)) { _server.answer("/x", {}); }

  Answer ask(Message&& message) {
    EXPECT_EQ(_plugin.send(std::move(message)), 0);
    return _plugin.waitForAnswers(++_asked).back();
  }
  data_t nested(int levels) const { return GetParam().build(levels); }
  void expectNothingSent() { EXPECT_EQ(_server.connectionCount(), 0U); }

 private:
  ScriptedServer _server;
  PluginUnderTest _plugin;
  std::size_t _asked = 0;
};

INSTANTIATE_TEST_SUITE_P(Of, Depth,
                         ::testing::Values(Shape{"Lists", lists}, Shape{"Maps", maps},
                                           Shape{"MapsAsKeys", keys}, Shape{"AllInTurn", mixed}),
                         nameOf);

TEST_P(Depth, OfThePayloadBeyondTheLimitIsRefused) {
  expectTooDeep(ask(messageOf(Request("POST", "/x"), nested(mostLevels + 1))));
  expectNothingSent();
}

TEST_P(Depth, OfTheMetadataBeyondTheLimitIsRefused) {
  expectTooDeep(ask(messageWith(Request("GET", "/x"), "extra", nested(mostLevels + 1))));
  expectNothingSent();
}

TEST_P(Depth, IsRefusedBeforeAnyOtherFault) {
  const Request faulty = Request("PATCH", "/%zz").without("http");
  expectTooDeep(ask(messageOf(faulty, nested(mostLevels + 1))));
  expectTooDeep(ask(messageWith(faulty, "extra", nested(mostLevels + 1))));
  expectTooDeep(ask(messageWith(faulty, "http", nested(mostLevels + 1))));
  Request anonymous = faulty;
  expectTooDeep(ask(messageOf(anonymous.without("requestId"), nested(mostLevels + 1))));
}

TEST_P(Depth, OfThePayloadUpToTheLimitIsNoFault) {
  expectError(ask(messageOf(Request("POST", "/x"), nested(mostLevels))), payloadText);
}

TEST_P(Depth, OfTheMetadataUpToTheLimitIsNoFault) {
  const Answer answer = ask(messageWith(Request("GET", "/x"), "extra", nested(mostLevels - 1)));
  EXPECT_EQ(answer.status(), 200) << answer.reason();
}

TEST_P(Depth, IsCountedAlongOnePathAndNotInAll) {
  list_t list;
  for (int times = 0; times < 3; ++times) list.push_back(nested(mostLevels / 2));
  const Answer answer = ask(messageWith(Request("GET", "/x"), "extra", data_t(std::move(list))));
  EXPECT_EQ(answer.status(), 200) << answer.reason();
}

TEST_P(Depth, OfTheRequestIdIsRefusedToo) {
  expectTooDeep(ask(messageWith(Request("GET", "/x"), "requestId", nested(mostLevels + 1))));
  expectNothingSent();
}

// Keys are hashed, each with all that it holds, while such a map is built: fewer of them.
constexpr int manyFor(const char* shape) {
  const std::string_view name = shape;
  return name == "Lists" || name == "Maps" ? farTooMany : 3 * mostLevels;
}

TEST_P(Depth, BeyondAllBoundsHarmsNothing) {
  const int levels = manyFor(GetParam().name);
  expectTooDeep(ask(messageOf(Request("POST", "/x"), nested(levels))));
  expectTooDeep(ask(messageWith(Request("GET", "/x"), "extra", nested(levels))));
  expectTooDeep(ask(messageWith(Request("GET", "/x"), "http", nested(levels))));
  expectNothingSent();
  EXPECT_EQ(ask(Request("GET", "/x").message()).status(), 200);
}

TEST_P(Depth, OfAConcurrencyKeyHarmsNoneOfSeveralWorkers) {
  constexpr int requests = 12;
  ScriptedServer server(answerWithTarget);
  PluginUnderTest plugin(Config(server.port()).numClients(4));
  const int levels = manyFor(GetParam().name);
  for (int id = 0; id < requests; ++id) {
    const Request request = Request("GET", "/x").id(id);
    const bool deep = id % 2 == 0;
    ASSERT_EQ(plugin.send(deep ? messageWith(request, "concurrencyControlKey", nested(levels))
                               : Request(request).key(std::to_string(id)).message()),
              0);
  }
  std::set<long long> ids;
  for (const Answer& answer : plugin.waitForAnswers(requests)) {
    ids.insert(answer.id());
    if (answer.id() % 2 == 0) {
      expectTooDeep(answer);
    } else {
      EXPECT_EQ(answer.status(), 200) << answer.reason();
    }
  }
  EXPECT_EQ(ids.size(), static_cast<std::size_t>(requests));
}

}  // namespace
}  // namespace test_support
