// From a batch to the workers: keys, flushes, barriers.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/EchoServer.hpp"
#include "tests/plugins/http_client/NumberedRequests.hpp"
#include "tests/support/PluginUnderTest.hpp"

namespace test_support {
namespace {

// --- Which worker, and in which order ----------------------------------------------------------

TEST(Dispatch, PerformsEverythingInOrderWithOneWorker) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port())};
  std::vector<Message> batch;
  for (const auto id : upTo(20)) batch.push_back(get(id).key(id % 2 == 0 ? "a" : "b").message());
  EXPECT_EQ(plugin.send(std::move(batch)), 0);
  EXPECT_EQ(idsOf(plugin.waitForAnswers(20)), upTo(20));
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(Dispatch, DoesNotReadKeysAndFlagsWithOneWorker) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port())};
  plugin.request(get(1).key("k").flush());
  EXPECT_FALSE(plugin.log().contains("concurrencyControl"));
  EXPECT_EQ(plugin.statusItem(".serializedRequests"), "0");
}

TEST(Dispatch, AnswersEveryRequestOfManyWorkersOnce) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(4)};
  constexpr long long all = 200;
  for (long long id = 1; id <= all; id += 4) {
    std::vector<Message> batch;
    for (long long i = id; i < id + 4; ++i) {
      batch.push_back((i % 3 == 0 ? get(i).key("k" + std::to_string(i % 5)) : get(i)).message());
    }
    EXPECT_EQ(plugin.send(std::move(batch)), 0);
  }
  EXPECT_EQ(plugin.shutdown(), 0);
  auto ids = idsOf(plugin.waitForAnswers(all));
  EXPECT_EQ(plugin.answerCount(), static_cast<std::size_t>(all));
  std::sort(ids.begin(), ids.end());
  EXPECT_EQ(ids, upTo(all));
}

TEST(Dispatch, PerformsMessagesOfOneKeyInOrderOnOneWorkerThoughOthersAreIdle) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(4)};
  for (const auto id : upTo(30)) plugin.send(get(id).key("same"));
  EXPECT_EQ(idsOf(plugin.waitForAnswers(30)), upTo(30));
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(Dispatch, ChoosesTheWorkerByTheLow32BitsOfTheKeysHash) {
  EchoServer server;
  constexpr std::uint32_t workers = 3;
  PluginUnderTest plugin{Config(server.port()).numClients(workers)};
  std::set<std::uint32_t> used;
  bool allBitsChooseAlike = true;
  // Numbers: texts have another hash in each process.
  for (long long key = 1; key <= 8; ++key) {
    const std::string path = "/" + std::to_string(key);
    plugin.request(Request("GET", path.c_str()).set("concurrencyControlKey", data_t(key)));
    const auto hash = connectivity::hashes::hash(data_t(key));
    const auto worker = static_cast<std::uint32_t>(hash) % workers;
    EXPECT_TRUE(plugin.log().contains("{" + std::to_string(worker) +
                                      "} Handling a request for GET path " + path))
        << key;
    used.insert(worker);
    allBitsChooseAlike = allBitsChooseAlike && hash % workers == worker;
  }
  EXPECT_EQ(used.size(), workers);
  EXPECT_FALSE(allBitsChooseAlike);  // or the keys would prove nothing
}

TEST(Dispatch, TakesAKeyOfAnyKindThatCanBeHashed) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(2)};
  plugin.send(get(1).set("concurrencyControlKey", data_t(5LL)));
  plugin.send(get(2).set("concurrencyControlKey", data_t(map_t())));
  plugin.send(get(3).set("concurrencyControlKey", data_t::borrow("lent")));
  plugin.waitForAnswers(3);
  const auto line = plugin.log().find("HTTPClient - concurrencyControlKey set: 5");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->level, QOR_LOG_DEBUG);
  EXPECT_TRUE(plugin.log().contains("HTTPClient - concurrencyControlKey set: {}"));
  EXPECT_TRUE(plugin.log().contains("HTTPClient - concurrencyControlKey set: lent"));
  EXPECT_FALSE(plugin.log().contains("No concurrencyControlKey"));
}

TEST(Dispatch, TakesAnEmptyKeyAsNone) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(2)};
  plugin.send(get(1).key(""));
  plugin.send(get(2).set("concurrencyControlKey", data_t()));
  plugin.send(get(3));
  plugin.waitForAnswers(3);
  EXPECT_EQ(plugin.log().count("HTTPClient - No concurrencyControlKey"), 3U);
  EXPECT_EQ(plugin.log().find("No concurrencyControlKey")->level, QOR_LOG_DEBUG);
  EXPECT_FALSE(plugin.log().contains("concurrencyControlKey set"));
}

TEST(Dispatch, LetsAnIdleWorkerTakeAMessageWithoutAKeyPastABacklog) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(2)};
  plugin.send(get(1, "/stall").key("same"));
  server.waitForRequests(1);
  for (long long id = 2; id <= 10; ++id) plugin.send(get(id).key("same"));
  plugin.send(get(11));
  EXPECT_EQ(plugin.waitForAnswers(1).front().id(), 11);
  server.release();
  plugin.waitForAnswers(11);
}

TEST(Dispatch, LeavesWhatItTookEmpty) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port())};
  std::vector<Message> batch;
  batch.push_back(Request("POST", "/x").body("bytes").message());
  EXPECT_EQ(plugin.send(std::span(batch)), 0);
  EXPECT_TRUE(batch[0].payload.empty());
  EXPECT_EQ(batch[0].metadata.table(), nullptr);
  plugin.waitForAnswers(1);
}

TEST(Dispatch, AcceptsAnEmptyBatch) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port())};
  EXPECT_EQ(plugin.send(std::span<Message>()), 0);
}

TEST(Dispatch, ShowsTheQueueLengthAtTheLatestBatch) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port())};
  plugin.send(get(1, "/stall"));
  server.waitForRequests(1);
  std::vector<Message> batch;
  for (const auto id : upTo(3)) batch.push_back(get(id).message());
  plugin.send(std::move(batch));
  EXPECT_EQ(plugin.statusItem(".queueSize"), "3");
  server.release();
  plugin.waitForAnswers(4);
  EXPECT_EQ(plugin.statusItem(".queueSize"), "3");
}

// --- A batch that fails ------------------------------------------------------------------------

TEST(Dispatch, FailsABatchAtAFlushMessageWithoutItsObject) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(2)};
  std::vector<Message> batch;
  batch.push_back(get(1).message());
  batch.push_back(get(2).set(Keys{"qor.control.type"}, textValue("QueueFlush")).message());
  batch.push_back(get(3).message());
  EXPECT_EQ(plugin.send(std::span(batch)), 1);
  const auto line = plugin.log().find("Exception from sendBatchTowardsTransport");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->level, QOR_LOG_WARN);
  EXPECT_TRUE(line->text.ends_with("Couldn't locate queue flush object in message"));
  EXPECT_TRUE(batch[0].metadata.empty());
  EXPECT_FALSE(batch[1].metadata.empty());
  EXPECT_FALSE(batch[2].metadata.empty());
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_EQ(idsOf(plugin.waitForAnswers(1)), upTo(1));
  EXPECT_EQ(plugin.answerCount(), 1U);
}

TEST(Dispatch, FailsABatchAtAKeyThatCannotBeHashed) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(2)};
  Message flush = flushMessage(std::make_shared<Event>());
  std::vector<Message> batch;
  batch.push_back(get(1).message());
  batch.push_back(
      get(2)
          .set("concurrencyControlKey", std::move(*flush.metadata.findText("qor.controlObject")))
          .message());
  EXPECT_EQ(plugin.send(std::span(batch)), 1);
  EXPECT_TRUE(plugin.log().contains("Cannot use custom values as a key"));
  EXPECT_FALSE(batch[1].metadata.empty());
  EXPECT_EQ(plugin.waitForAnswers(1).front().id(), 1);
}

// --- Flushes -----------------------------------------------------------------------------------

TEST(Dispatch, FinishesWhatIsQueuedBeforeAMessageThatAsksForIt) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(3)};
  plugin.send(get(1, "/stall"));
  server.waitForRequests(1);
  plugin.send(get(2, "/after").flush());
  plugin.send(get(3, "/after"));
  plugin.waitForAnswers(0);
  EXPECT_EQ(server.requestCount(), 1U);
  server.release();
  EXPECT_EQ(plugin.waitForAnswers(3).front().id(), 1);
  EXPECT_EQ(plugin.statusItem(".serializedRequests"), "1");
  const auto line = plugin.log().find("HTTPClient - concurrencyControlFlush set: true");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->level, QOR_LOG_DEBUG);
}

TEST(Dispatch, FlushesForEveryFlagButThoseThatSayNo) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(2)};
  const auto sendWith = [&](data_t&& flag) {
    plugin.request(get(1).set("concurrencyControlFlush", std::move(flag)));
    return plugin.statusItem(".serializedRequests");
  };
  EXPECT_EQ(sendWith(data_t(false)), "0");
  EXPECT_EQ(sendWith(textValue("false")), "0");
  EXPECT_EQ(sendWith(data_t::borrow("false")), "0");
  EXPECT_EQ(sendWith(textValue("")), "0");
  EXPECT_EQ(sendWith(data_t()), "0");
  EXPECT_EQ(sendWith(data_t(true)), "1");
  EXPECT_EQ(sendWith(textValue("False")), "2");
  EXPECT_EQ(sendWith(textValue("no")), "3");
  EXPECT_EQ(sendWith(data_t(0LL)), "4");
  EXPECT_EQ(sendWith(data_t(map_t())), "5");
}

TEST(Dispatch, FreesAFlushObjectOnceEverythingBeforeItIsAnswered) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(3)};
  auto released = std::make_shared<Event>("the flush object to be freed");
  std::atomic<bool> early{false};
  plugin.onDelivery([&](const Answer&) { early = early || released->isSet(); });
  std::vector<Message> batch;
  for (const auto id : upTo(20)) batch.push_back(get(id).message());
  batch.push_back(flushMessage(released));
  EXPECT_EQ(plugin.send(std::move(batch)), 0);
  released->wait();
  EXPECT_EQ(plugin.answerCount(), 20U);
  EXPECT_FALSE(early);
}

TEST(Dispatch, HonoursAFlushMessageWithOneWorkerAndDoesNotAnswerIt) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port())};
  auto released = std::make_shared<Event>("the flush object to be freed");
  plugin.send(get(1));
  plugin.send(flushMessage(released));
  released->wait();
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_EQ(plugin.answerCount(), 1U);
}

TEST(Dispatch, TakesNothingOfAFlushMessageButItsObject) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(2)};
  auto released = std::make_shared<Event>("the flush object to be freed");
  std::vector<Message> batch;
  batch.push_back(flushMessage(released));
  EXPECT_EQ(plugin.send(std::span(batch)), 0);
  released->wait();
  const map_t& left = batch[0].metadata;
  EXPECT_EQ(left.size(), 2U);
  ASSERT_NE(left.findText("qor.controlObject"), nullptr);
  EXPECT_TRUE(left.findText("qor.controlObject")->empty());
}

TEST(Dispatch, TakesAMessageOfAnotherControlTypeForARequest) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(2)};
  const auto sendWith = [&](data_t&& type) {
    return plugin.request(get(1).set(Keys{"qor.control.type"}, std::move(type))).status();
  };
  EXPECT_EQ(sendWith(textValue("queueflush")), 200);
  EXPECT_EQ(sendWith(textValue("QueueFlushAll")), 200);
  EXPECT_EQ(sendWith(textValue("")), 200);
  EXPECT_EQ(sendWith(data_t(1LL)), 200);
  EXPECT_EQ(sendWith(data_t()), 200);
}

// Were a barrier placed lane by lane, two of them could stand in opposite orders on two lanes, and
// their workers would wait for each other for ever.
TEST(Dispatch, PlacesBarriersOfSeveralThreadsInOneOrder) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(3)};
  std::vector<std::shared_ptr<Event>> flushes(60);
  std::vector<std::thread> senders;
  senders.reserve(3);
  for (std::size_t sender = 0; sender < 3; ++sender) {
    senders.emplace_back([&, sender] {
      for (std::size_t i = sender; i < flushes.size(); i += 3) {
        flushes[i] = std::make_shared<Event>("a flush");
        plugin.send(flushMessage(flushes[i]));
        plugin.send(get(1).flush());
      }
    });
  }
  for (auto& sender : senders) sender.join();
  for (const auto& flush : flushes) flush->wait();
  plugin.waitForAnswers(flushes.size());
}

// A queue that is full makes the producers wait in the middle of their barriers.
TEST(Dispatch, PlacesBarriersInOneOrderWhileTheQueueIsFull) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(2)};
  plugin.send(get(1, "/stall").key("a"));
  server.waitForRequests(1);
  std::vector<std::thread> senders;
  senders.reserve(3);
  constexpr std::size_t each = 1100;
  for (int sender = 0; sender < 2; ++sender) {
    senders.emplace_back([&] {
      for (std::size_t i = 0; i < each; ++i) {
        // Refused before anything is sent, so that it costs no exchange.
        Request request("PATCH", "/x");
        plugin.send(i % 20 == 0 ? request.flush() : request.key("a"));
      }
    });
  }
  plugin.log().waitForLine("AffinityQueue is full");
  server.release();
  for (auto& sender : senders) sender.join();
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_EQ(plugin.answerCount(), 2 * each + 1);
}

TEST(Dispatch, KeepsABarrierThoughTheHostCannotTellWhetherItShutsDown) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(2)};
  plugin.host().setShuttingDownResult(1);
  plugin.send(get(1, "/stall").key("a"));
  server.waitForRequests(1);
  plugin.send(get(2, "/after").flush());
  const auto line = plugin.log().waitForLine("Caught exception during processing");
  EXPECT_EQ(line.level, QOR_LOG_ERROR);
  EXPECT_TRUE(
      line.text.ends_with("HTTPClient - Caught exception during processing - An error "
                          "occurred while checking if host is shutting down"));
  EXPECT_EQ(server.requestCount(), 1U);
  server.release();
  EXPECT_EQ(plugin.waitForAnswers(2).front().id(), 1);
  for (const auto id : upTo(8)) plugin.send(get(id));  // both workers live on
  plugin.waitForAnswers(10);
  plugin.host().setShuttingDownResult(0);
}

TEST(Dispatch, LeavesABarrierAtOnceWhereTheHostIsShuttingDown) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(2)};
  plugin.send(get(1, "/stall").key("a"));
  server.waitForRequests(1);
  plugin.host().setShuttingDown(true);
  plugin.send(get(2, "/after").flush());
  EXPECT_EQ(plugin.waitForAnswers(1).front().id(), 2);
  plugin.host().setShuttingDown(false);
  server.release();
  plugin.waitForAnswers(2);
}

// --- A full queue ------------------------------------------------------------------------------

TEST(Dispatch, FinishesABatchLargerThanTheQueueSentToSleepingWorkers) {
  PluginUnderTest plugin{Config(1).numClients(2)};
  constexpr std::size_t all = 5000;
  std::vector<Message> batch;
  batch.reserve(all);
  // Refused before anything is sent, so that it costs no exchange.
  for (std::size_t i = 0; i < all; ++i) batch.push_back(Request("PATCH", "/x").message());
  EXPECT_EQ(plugin.send(std::move(batch)), 0);
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_EQ(plugin.answerCount(), all);
}

TEST(Dispatch, NeverMakesAWorkerThatSendsFromADeliveryWait) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port())};
  constexpr std::size_t more = 2500;
  plugin.onDelivery([&](const Answer& answer) {
    if (answer.id() != 1) return;
    std::vector<Message> batch;
    for (std::size_t i = 0; i < more; ++i) {
      batch.push_back(Request("PATCH", "/x").id(2).message());
    }
    EXPECT_EQ(plugin.send(std::move(batch)), 0);
  });
  plugin.send(get(1));
  plugin.waitForAnswers(more + 1);
  EXPECT_FALSE(plugin.log().contains("AffinityQueue is full"));
}

}  // namespace
}  // namespace test_support
