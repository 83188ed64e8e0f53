// Which calls the transport admits when, and what it does with those that would wait for
// themselves.
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/ActingLog.hpp"
#include "tests/plugins/http_client/EchoServer.hpp"
#include "tests/plugins/http_client/NumberedRequests.hpp"
#include "tests/support/PluginUnderTest.hpp"

namespace test_support {
namespace {

using connectivity::data_t;

constexpr std::size_t capacity = 2048;

// A flush object that does something when it is freed.
class ActingFlush {
 public:
  static Message message(std::function<void()> action) {
    Message flush;
    put(flush.metadata, Keys{"qor.control.type"}, textValue("QueueFlush"));
    put(flush.metadata, Keys{"qor.controlObject"},
        data_t(connectivity::custom_t(
            qor_allocate_custom(new ActingFlush{std::move(action)}, &operations))));
    return flush;
  }

 private:
  explicit ActingFlush(std::function<void()> action) : _action(std::move(action)) {}
  static void* copy(void* object) { return new ActingFlush(*static_cast<ActingFlush*>(object)); }
  static void free(void* object) {
    const std::unique_ptr<ActingFlush> self(static_cast<ActingFlush*>(object));
    self->_action();
  }
  static const char* text(void*) { return "flush"; }
  static constexpr qor_custom_operations_t operations{copy, free, text};

  std::function<void()> _action;
};

// The calls that wait for the transport, each by its entry point, and what becomes of it from
// inside.
struct Waiting {
  const char* operation;
  const char* participle;
  int result;
  std::function<int(PluginUnderTest&)> call;
};

std::vector<Waiting> waitingCalls() {
  const auto ignore = [](void*, qor_message_t*, qor_message_t*) { return 0; };
  return {{"start", "started", 1,
           [](PluginUnderTest& plugin) { return plugin.library().start(plugin.instance()); }},
          {"shutdown", "shut down", 1,
           [](PluginUnderTest& plugin) { return plugin.library().shutdown(plugin.instance()); }},
          {"setNextTowardsHost", "connected", 1,
           [ignore](PluginUnderTest& plugin) {
             return plugin.library().setNextTowardsHost(plugin.instance(), nullptr, ignore);
           }},
          {"destroy", "destroyed", 0,
           [](PluginUnderTest& plugin) { return plugin.library().destroy(plugin.instance()); }}};
}

// All of them, from wherever this is called.
void makeWaitingCalls(PluginUnderTest& plugin) {
  for (const Waiting& each : waitingCalls()) {
    EXPECT_EQ(each.call(plugin), each.result) << each.operation;
  }
}

// One line at error level for each, and nothing was done.
void expectRefused(PluginUnderTest& plugin) {
  for (const Waiting& each : waitingCalls()) {
    const auto line = plugin.log().find(std::string("Exception from ") + each.operation);
    ASSERT_TRUE(line.has_value()) << each.operation;
    EXPECT_EQ(line->level, QOR_LOG_ERROR);
    EXPECT_EQ(line->text, std::string("<connectivity.plugin.chain> Exception from ") +
                              each.operation + ": HTTPClient cannot be " + each.participle +
                              " from inside a delivery or the release of a flush object");
  }
}

// Under all of these the transport works on.
void expectAlive(PluginUnderTest& plugin, std::size_t answered) {
  plugin.send(get(100));
  EXPECT_EQ(plugin.waitForAnswers(answered + 1).back().id(), 100);
  EXPECT_EQ(plugin.shutdown(), 0);
}

TEST(Life, RefusesWhatWouldWaitForItselfFromADelivery) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(2)};
  std::atomic<bool> first{true};
  plugin.onDelivery([&](const Answer&) {
    if (first.exchange(false)) makeWaitingCalls(plugin);
  });
  plugin.request(get(1));
  expectRefused(plugin);
  expectAlive(plugin, 1);
}

// The barrier's last holder is a worker, or the thread that sent it.
TEST(Life, RefusesWhatWouldWaitForItselfFromTheReleaseOfAFlushObject) {
  for (const long long workers : {1, 4}) {
    EchoServer server;
    PluginUnderTest plugin{Config(server.port()).numClients(workers)};
    Event released("the flush object to be freed");
    plugin.send(ActingFlush::message([&] {
      makeWaitingCalls(plugin);
      released.set();
    }));
    released.wait();
    expectRefused(plugin);
    expectAlive(plugin, 0);
  }
}

// A sender holds the barriers of its batch until that is closed. It has to wait here until the
// worker is long past the barrier, and is the last holder then.
TEST(Life, RefusesWhatWouldWaitForItselfFromAReleaseOnTheSendersThread) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port())};
  std::thread::id releasedOn;
  std::vector<Message> batch;
  batch.push_back(ActingFlush::message([&] {
    releasedOn = std::this_thread::get_id();
    makeWaitingCalls(plugin);
  }));
  constexpr std::size_t requests = capacity + 100;
  for (std::size_t i = 0; i < requests; ++i) batch.push_back(get(1).message());
  plugin.send(std::move(batch));
  EXPECT_EQ(releasedOn, std::this_thread::get_id());
  expectRefused(plugin);
  plugin.waitForAnswers(requests);
  expectAlive(plugin, requests);
}

// What is queued is dropped by the thread that ends it all, which frees the flush object.
void expectRefusedFromAReleaseDuring(int (PluginUnderTest::*end)()) {
  PluginOptions options;
  options.start = false;
  PluginUnderTest plugin{Config(1).numClients(2), options};
  std::atomic<int> releases{0};
  plugin.send(ActingFlush::message([&] {
    ++releases;
    makeWaitingCalls(plugin);
  }));
  EXPECT_EQ((plugin.*end)(), 0);
  EXPECT_EQ(releases, 1);
  expectRefused(plugin);
}

TEST(Life, RefusesWhatWouldWaitForItselfFromAReleaseDuringShutdown) {
  expectRefusedFromAReleaseDuring(&PluginUnderTest::shutdown);
}

TEST(Life, RefusesWhatWouldWaitForItselfFromAReleaseDuringDestroy) {
  expectRefusedFromAReleaseDuring(&PluginUnderTest::destroy);
}

// --- Before start --------------------------------------------------------------------------------

TEST(Life, RefusesABatchThatWouldHaveToWaitBeforeStart) {
  EchoServer server;
  PluginOptions options;
  options.start = false;
  PluginUnderTest plugin{Config(server.port()), options};
  std::vector<Message> batch;
  for (std::size_t id = 0; id <= capacity; ++id) {
    batch.push_back(get(static_cast<long long>(id)).message());
  }
  EXPECT_EQ(plugin.send(std::span(batch)), 1);
  EXPECT_TRUE(batch[capacity - 1].metadata.empty()) << "there was room for this one";
  EXPECT_EQ(Answer(std::move(batch[capacity])).id(), static_cast<long long>(capacity));
  const auto line = plugin.log().find("Exception from");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->text,
            "<connectivity.plugin.chain> Exception from sendBatchTowardsTransport: The queue is "
            "full, and nobody takes anything yet");
  EXPECT_EQ(line->level, QOR_LOG_WARN);
  EXPECT_FALSE(plugin.log().contains("AffinityQueue is full"));
  EXPECT_TRUE(plugin.host().batchWaits().empty());

  ASSERT_EQ(plugin.start(), 0);
  EXPECT_EQ(plugin.waitForAnswers(capacity).size(), capacity);
}

TEST(Life, DropsWhatIsQueuedAtAShutdownWithoutStartAndSaysSoOnce) {
  PluginOptions options;
  options.start = false;
  PluginUnderTest plugin{Config(1).numClients(3), options};
  auto released = std::make_shared<Event>("the flush object to be freed");
  plugin.send(get(1));
  plugin.send(flushMessage(released));
  plugin.send(get(2));
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_TRUE(released->isSet());
  EXPECT_EQ(plugin.answerCount(), 0U);
  constexpr const char* line = "Dropped 5 queued elements that no worker has taken";
  EXPECT_EQ(plugin.log().count(line), 1U);
  EXPECT_EQ(plugin.destroy(), 0);
  EXPECT_EQ(plugin.log().count("Dropped"), 1U);
}

TEST(Life, DropsWhatIsQueuedAtADestroyWithoutShutdownAndSaysSoOnce) {
  PluginOptions options;
  options.start = false;
  PluginUnderTest plugin{Config(1), options};
  plugin.send(get(1));
  EXPECT_EQ(plugin.destroy(), 0);
  EXPECT_EQ(plugin.log().count("Dropped 1 queued elements that no worker has taken"), 1U);
}

// --- The end beside other calls ------------------------------------------------------------------

// The report of a batch's failure is the last that the batch does with the transport.
TEST(Life, IsThereUntilAFailedBatchIsReported) {
  EchoServer server;
  LogDouble unused;
  Event reporting("the failure to be reported");
  Event destroyed("the transport to be destroyed");
  const ActingLog log([&](std::string_view text) {
    if (!holds(text, "Exception from sendBatchTowardsTransport")) return;
    reporting.set();
    EXPECT_FALSE(destroyed.isSetWithin(std::chrono::milliseconds(100)));
  });
  PluginOptions options;
  options.log = &unused;
  PluginUnderTest plugin{Config(server.port()), options};
  Message broken;
  put(broken.metadata, Keys{"qor.control.type"}, textValue("QueueFlush"));
  std::thread sender([&] { EXPECT_EQ(plugin.send(std::move(broken)), 1); });
  reporting.wait();
  EXPECT_EQ(plugin.destroy(), 0);
  destroyed.set();
  sender.join();
}

// A batch that waits for space is inside, and is not waited for in vain.
TEST(Life, EndsWithABatchThatWaits) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port())};
  Event delivering("a delivery");
  Event goesOn("the delivery to go on");
  plugin.onDelivery([&](const Answer&) {
    delivering.set();
    goesOn.wait();
  });
  std::thread sender([&] {
    std::vector<Message> batch;
    for (std::size_t i = 0; i < 2 * capacity; ++i) batch.push_back(get(1).message());
    EXPECT_EQ(plugin.send(std::span(batch)), 0);
    EXPECT_FALSE(batch.back().metadata.empty()) << "nobody was there to take it";
  });
  delivering.wait();
  plugin.host().waitForBatchWaits(1);
  std::thread ending([&] { EXPECT_EQ(plugin.destroy(), 0); });
  sender.join();
  goesOn.set();
  ending.join();
}

// destroy waits for a start beside it, and then stops what that has started.
TEST(Life, EndsWhatAStartBesideItHasBegun) {
  EchoServer server;
  LogDouble unused;
  Event starting("the start to be under way");
  Event destroyed("the transport to be destroyed");
  const ActingLog log([&](std::string_view text) {
    if (!holds(text, "Could not enable queue flush notifications")) return;
    starting.set();
    EXPECT_FALSE(destroyed.isSetWithin(std::chrono::milliseconds(100)));
  });
  PluginOptions options;
  options.log = &unused;
  options.start = false;
  PluginUnderTest plugin{Config(server.port()), options};
  plugin.host().setEnableResult(1);
  std::thread other([&] { plugin.library().start(plugin.instance()); });
  starting.wait();
  EXPECT_EQ(plugin.destroy(), 0);
  destroyed.set();
  other.join();
}

TEST(Life, ShutsDownBehindTheBatchesThatAreInside) {
  EchoServer server;
  LogDouble unused;
  Event sending("a batch to be inside");
  Event shutDown("the transport to be shut down");
  const ActingLog log([&](std::string_view text) {
    if (!holds(text, "No concurrencyControlKey")) return;
    sending.set();
    EXPECT_FALSE(shutDown.isSetWithin(std::chrono::milliseconds(100)));
  });
  PluginOptions options;
  options.log = &unused;
  PluginUnderTest plugin{Config(server.port()).numClients(2), options};
  std::thread sender([&] { EXPECT_EQ(plugin.send(get(1)), 0); });
  sending.wait();
  EXPECT_EQ(plugin.shutdown(), 0);
  shutDown.set();
  sender.join();
}

// A start that was under way when everything ended starts nothing any more.
TEST(Life, RefusesAStartThatAShutdownOvertakes) {
  EchoServer server;
  LogDouble unused;
  Event starting("the start to be under way");
  Event shutDown("the transport to be shut down");
  std::atomic<bool> refused{false};
  const ActingLog log([&](std::string_view text) {
    if (holds(text, "Exception from start: HTTPClient cannot be started after shutdown")) {
      refused = true;
    }
    if (!holds(text, "Could not enable queue flush notifications")) return;
    starting.set();
    shutDown.wait();
  });
  PluginOptions options;
  options.log = &unused;
  options.start = false;
  PluginUnderTest plugin{Config(server.port()), options};
  plugin.host().setEnableResult(1);
  std::thread other([&] { EXPECT_EQ(plugin.library().start(plugin.instance()), 1); });
  starting.wait();
  EXPECT_EQ(plugin.shutdown(), 0);
  shutDown.set();
  other.join();
  EXPECT_TRUE(refused);
}

}  // namespace
}  // namespace test_support
