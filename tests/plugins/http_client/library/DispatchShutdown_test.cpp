// The transport's end, in all its cases: what was accepted is answered, and nothing hangs.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/EchoServer.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScarceAddressSpace.hpp"
#include "tests/support/Scheduling.hpp"

namespace test_support {
namespace {

Request get(long long id, const char* path = "/x") { return Request("GET", path).id(id); }

// Answered without an exchange.
Request refused(long long id) { return Request("PATCH", "/x").id(id); }

std::vector<Message> batchOf(std::size_t howMany, const Request& request) {
  std::vector<Message> batch;
  batch.reserve(howMany);
  for (std::size_t i = 0; i < howMany; ++i) batch.push_back(request.message());
  return batch;
}

std::size_t takenOf(const std::vector<Message>& batch) {
  return static_cast<std::size_t>(
      std::count_if(batch.begin(), batch.end(),
                    [](const Message& message) { return message.metadata.table() == nullptr; }));
}

// The threads of this process that bear a worker's name, which the system cuts after 15 bytes.
std::size_t workersAlive() {
  std::size_t count = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream file(task.path() / "comm");
    std::string name;
    if (std::getline(file, name) && name == "clientSessionTh") ++count;
  }
  return count;
}

// A thread takes its name a moment after it was started, and is listed a moment after it was
// joined.
template <typename Condition>
bool comesTrue(Condition condition) {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

bool workersBecome(std::size_t howMany) {
  return comesTrue([=] { return workersAlive() == howMany; });
}

TEST(Shutdown, AnswersEverythingThatWasAccepted) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(3)};
  plugin.send(batchOf(100, get(1)));
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_EQ(plugin.answerCount(), 100U);
}

TEST(Shutdown, EndsItsWorkersWithOneLineEachAtDebugLevel) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(3)};
  plugin.request(get(1));
  EXPECT_TRUE(workersBecome(3U));
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_TRUE(workersBecome(0U));
  const auto* const text =
      "HTTPClient - Caught exception during processing - This queue has been terminated";
  EXPECT_EQ(plugin.log().count(text), 3U);
  for (const auto& line : plugin.log().lines()) EXPECT_GT(line.level, QOR_LOG_WARN) << line.text;
  EXPECT_EQ(plugin.log().find(text)->level, QOR_LOG_DEBUG);
}

TEST(Shutdown, IgnoresLaterBatchesSilently) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port())};
  EXPECT_EQ(plugin.shutdown(), 0);
  const auto lines = plugin.log().lines().size();
  auto batch = batchOf(1, get(1));
  EXPECT_EQ(plugin.send(std::span(batch)), 0);
  EXPECT_EQ(takenOf(batch), 0U);
  EXPECT_EQ(plugin.log().lines().size(), lines);
}

TEST(Shutdown, DoesNothingTheSecondTime) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port())};
  EXPECT_EQ(plugin.shutdown(), 0);
  const auto calls = plugin.host().shuttingDownCalls();
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_EQ(plugin.host().shuttingDownCalls(), calls);
}

TEST(Shutdown, ReturnsWhereNothingWasStarted) {
  PluginOptions options;
  options.start = false;
  PluginUnderTest plugin{Config(1).numClients(3), options};
  auto released = std::make_shared<Event>("the flush object to be freed");
  plugin.send(get(1));
  plugin.send(flushMessage(released));
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_EQ(plugin.answerCount(), 0U);
  EXPECT_TRUE(plugin.log().contains("queued elements that no worker has taken"));
  plugin.destroy();
  EXPECT_TRUE(released->isSet());
}

TEST(Shutdown, IsRefusedFromADelivery) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(2)};
  std::atomic<int> result{-1};
  plugin.onDelivery([&](const Answer&) { result = plugin.library().shutdown(plugin.instance()); });
  plugin.request(get(1));
  EXPECT_EQ(result, 1);
  const auto line = plugin.log().find("Exception from shutdown");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->level, QOR_LOG_ERROR);
  plugin.request(get(2));  // it still works
  EXPECT_EQ(plugin.shutdown(), 0);
}

TEST(Shutdown, AnswersWhatAWorkerSentFromItsLastDeliveries) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port())};
  std::atomic<std::size_t> accepted{0};
  plugin.onDelivery([&](const Answer&) {
    auto batch = batchOf(1, get(2));
    plugin.send(std::span(batch));
    accepted += takenOf(batch);
  });
  plugin.send(get(1));
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_EQ(plugin.answerCount(), accepted + 1);
}

TEST(Shutdown, DropsWhatIsQueuedWhereTheHostIsShuttingDown) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port())};
  constexpr std::size_t all = 1000;
  plugin.send(get(1, "/stall"));
  server.waitForRequests(1);
  plugin.send(batchOf(all, get(2)));
  plugin.host().setShuttingDown(true);
  std::thread control([&] { EXPECT_EQ(plugin.shutdown(), 0); });
  EXPECT_TRUE(comesTrue([&] { return plugin.host().shuttingDownCalls() > 0; }));
  server.release();
  control.join();
  EXPECT_GE(plugin.answerCount(), 1U);  // what ran was finished
  EXPECT_LT(plugin.answerCount(), all);
  EXPECT_TRUE(workersBecome(0U));
}

TEST(Shutdown, StopsDrainingWhenTheHostBeginsToShutDown) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(2)};
  constexpr std::size_t all = 1000;
  plugin.send(get(1, "/stall").key("a"));
  server.waitForRequests(1);
  plugin.send(batchOf(all, get(2).key("a")));
  std::thread control([&] { EXPECT_EQ(plugin.shutdown(), 0); });
  // Asked before the drain and in its first pass, and by the idle worker at the barrier.
  EXPECT_TRUE(comesTrue([&] { return plugin.host().shuttingDownCalls() >= 3; }));
  plugin.host().setShuttingDown(true);
  plugin.log().waitForLine("This queue has been terminated");  // the idle worker has gone
  server.release();
  control.join();
  EXPECT_GE(plugin.answerCount(), 1U);
  EXPECT_LT(plugin.answerCount(), all);
}

TEST(Shutdown, DrainsAndReportsAfterwardsWhereTheHostCannotTell) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(2)};
  plugin.host().setShuttingDownResult(1);
  plugin.send(batchOf(50, get(1)));
  EXPECT_EQ(plugin.shutdown(), 1);
  EXPECT_EQ(plugin.answerCount(), 50U);
  EXPECT_TRUE(workersBecome(0U));
  const auto line = plugin.log().find("Exception from shutdown");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->level, QOR_LOG_WARN);
  EXPECT_TRUE(line->text.ends_with("An error occurred while checking if host is shutting down"));
}

// The producer waits in the middle of its batch. It looks again when it is woken, and what it had
// not queued by then stays with the host.
TEST(Shutdown, EndsTheWaitOfAProducerAndAnswersWhatItHadQueued) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port())};
  plugin.send(get(1, "/stall"));
  server.waitForRequests(1);
  auto batch = batchOf(5000, refused(2));
  std::thread producer([&] { EXPECT_EQ(plugin.send(std::span(batch)), 0); });
  plugin.log().waitForLine("AffinityQueue is full");
  std::thread control([&] { EXPECT_EQ(plugin.shutdown(), 0); });
  producer.join();  // although the worker is still stalled
  EXPECT_EQ(takenOf(batch), 2048U);
  for (std::size_t i = 2048; i < batch.size(); ++i) EXPECT_FALSE(batch[i].metadata.empty());
  server.release();
  control.join();
  EXPECT_EQ(plugin.answerCount(), 2048U + 1);
}

TEST(Shutdown, AnswersExactlyWhatItTookFromBatchesThatCameMeanwhile) {
  for (int round = 0; round < 10; ++round) {
    PluginUnderTest plugin{Config(1).numClients(3)};
    std::atomic<bool> stop{false};
    std::atomic<std::size_t> taken{0};
    std::vector<std::thread> producers;
    producers.reserve(3);
    for (int producer = 0; producer < 3; ++producer) {
      producers.emplace_back([&, producer] {
        while (!stop) {
          auto batch = batchOf(7, producer == 0 ? refused(1).flush() : refused(1).key("k"));
          EXPECT_EQ(plugin.send(std::span(batch)), 0);
          taken += takenOf(batch);
        }
      });
    }
    plugin.waitForAnswers(50);
    EXPECT_EQ(plugin.shutdown(), 0);
    const auto answered = plugin.answerCount();
    stop = true;
    for (auto& producer : producers) producer.join();
    EXPECT_EQ(answered, taken);
    EXPECT_EQ(plugin.answerCount(), answered);
  }
}

// --- Without shutdown --------------------------------------------------------------------------

TEST(Destroy, StopsAndJoinsWorkersThatStillRun) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(2)};
  auto released = std::make_shared<Event>("the flush object to be freed");
  plugin.send(get(1, "/stall").key("a"));
  server.waitForRequests(1);
  plugin.send(batchOf(1000, get(2).key("a")));
  plugin.send(flushMessage(released));
  std::thread control([&] { EXPECT_EQ(plugin.destroy(), 0); });
  server.release();
  control.join();
  EXPECT_TRUE(workersBecome(0U));
  EXPECT_GE(plugin.answerCount(), 1U);
  EXPECT_TRUE(released->isSet());
  EXPECT_TRUE(plugin.status().items().empty());
}

// The worker that is to complete the barrier never gets there; what stands behind it is not done.
// The one that waits there runs in the very moment in which it is woken.
TEST(Destroy, EndsTheWaitOfAWorkerAtABarrierAndNothingPassesIt) {
  const OnOneProcessor oneProcessor;
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(2)};
  plugin.send(get(1, "/stall").key("a"));
  server.waitForRequests(1);
  plugin.send(get(2).key("a"));
  plugin.send(get(3).flush());
  // One is there.
  EXPECT_TRUE(comesTrue([&] { return plugin.host().shuttingDownCalls() > 0; }));
  std::thread control([&] {
    runWhenNobodyElseDoes();
    EXPECT_EQ(plugin.destroy(), 0);
  });
  plugin.log().waitForLine("This queue has been terminated");  // that one has gone on
  server.release();
  control.join();
  EXPECT_TRUE(workersBecome(0U));
  EXPECT_EQ(plugin.answerCount(), 1U);
}

TEST(Destroy, IsRefusedFromADelivery) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port())};
  plugin.onDelivery(
      [&](const Answer&) { EXPECT_EQ(plugin.library().destroy(plugin.instance()), 0); });
  plugin.request(get(1));
  EXPECT_TRUE(plugin.log().contains("Exception from destroy: HTTPClient cannot be destroyed"));
  plugin.request(get(2));
}

TEST(Destroy, FreesWorkersThatNeverRan) {
  PluginOptions options;
  options.start = false;
  PluginUnderTest plugin{Config(1).numClients(5), options};
  EXPECT_EQ(plugin.destroy(), 0);
  EXPECT_TRUE(plugin.status().items().empty());
}

// --- A start that fails half-way ---------------------------------------------------------------

#ifdef ADDRESS_SPACE_CAN_BE_LIMITED

class HalfStarted : public testing::Test {
 protected:
  static PluginOptions notStarted() {
    PluginOptions options;
    options.start = false;
    options.logLevel = QOR_LOG_INFO;
    return options;
  }
  void startHalf() {
    const ScarceAddressSpace scarce;
    ASSERT_EQ(plugin.start(), 1);
    ASSERT_TRUE(comesTrue([] { return workersAlive() > 0; }));
    ASSERT_LT(workersAlive(), all);
    ASSERT_TRUE(plugin.log().contains(
        "Exception from start: Thread clientSessionThread could not be started"));
    ASSERT_EQ(plugin.statusItem(".status"), "FAILED");
  }

  static constexpr std::size_t all = 200;
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(static_cast<long long>(all)),
                         notStarted()};
};

TEST_F(HalfStarted, ShutsDownWithTheWorkersThatRun) {
  startHalf();
  plugin.send(batchOf(20, get(1)));
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_EQ(plugin.answerCount(), 20U);
  EXPECT_TRUE(workersBecome(0U));
}

TEST_F(HalfStarted, DoesNotWaitAtABarrierThatCannotBeComplete) {
  auto before = std::make_shared<Event>("the flush object to be freed");
  plugin.send(flushMessage(before));  // before the start
  startHalf();
  plugin.send(get(1).set("concurrencyControlFlush", data_t(true)));
  plugin.waitForAnswers(1);
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_TRUE(workersBecome(0U));
}

TEST_F(HalfStarted, GoesOnWithTheWorkersThatAreMissing) {
  startHalf();
  EXPECT_EQ(plugin.start(), 0);
  EXPECT_TRUE(workersBecome(all));
  EXPECT_EQ(plugin.statusItem(".status"), "ONLINE");
  plugin.request(get(1).flush());
  EXPECT_EQ(plugin.shutdown(), 0);
}

#endif

}  // namespace
}  // namespace test_support
