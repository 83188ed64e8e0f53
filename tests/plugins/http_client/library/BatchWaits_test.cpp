// The host is told when a batch begins and ends to wait for space in the queue.
#include <cstddef>
#include <memory>
#include <span>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/EchoServer.hpp"
#include "tests/support/Event.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

constexpr std::size_t capacity = 2048;
using Told = std::vector<bool>;

// Refused before anything is sent, so that it costs no exchange.
std::vector<Message> cheap(std::size_t howMany) {
  std::vector<Message> batch;
  batch.reserve(howMany);
  while (batch.size() < howMany) batch.push_back(Request("PATCH", "/x").id(2).message());
  return batch;
}

// A transport whose only worker is held by the server until that is released.
class BatchWaits : public testing::Test {
 protected:
  ~BatchWaits() override { server.release(); }

  void holdTheWorker() {
    plugin.send(Request("GET", "/stall").id(3));
    server.waitForRequests(1);
  }
  void fillTheQueue() {
    holdTheWorker();
    EXPECT_EQ(plugin.send(cheap(capacity)), 0);
  }
  void sendBesides(std::vector<Message>&& batch) {
    _kept = std::move(batch);
    producer = std::jthread([this] { EXPECT_EQ(plugin.send(std::span(_kept)), 0); });
  }
  void letTheProducerEnd() {
    server.release();
    producer.join();
  }
  const Message& lastOfTheBatch() const { return _kept.back(); }

  EchoServer server;
  PluginUnderTest plugin{Config(server.port())};

 private:
  std::vector<Message> _kept;  // what the plug-in does not take stays here

 protected:
  std::jthread producer;
};

TEST_F(BatchWaits, AreToldWhenTheyBeginAndWhenTheyEnd) {
  fillTheQueue();
  sendBesides(cheap(1));
  plugin.host().waitForBatchWaits(1);
  EXPECT_EQ(plugin.host().batchWaits(), Told{true});
  letTheProducerEnd();
  EXPECT_EQ(plugin.host().batchWaits(), (Told{true, false}));
}

TEST_F(BatchWaits, AreToldOnTheThreadThatSends) {
  std::vector<std::thread::id> threads;
  plugin.host().onBatchWaits([&](bool) { threads.push_back(std::this_thread::get_id()); });
  fillTheQueue();
  sendBesides(cheap(1));
  const auto sender = producer.get_id();
  plugin.host().waitForBatchWaits(1);
  letTheProducerEnd();
  EXPECT_EQ(threads, std::vector(2, sender));
}

TEST_F(BatchWaits, OfABatchThatWaitsSeveralTimesAreToldInPairs) {
  holdTheWorker();
  sendBesides(cheap(2 * capacity));
  plugin.host().waitForBatchWaits(1);
  letTheProducerEnd();
  const Told told = plugin.host().batchWaits();
  ASSERT_EQ(told.size() % 2, 0U);
  for (std::size_t i = 0; i < told.size(); ++i) EXPECT_EQ(told[i], i % 2 == 0) << i;
}

TEST_F(BatchWaits, AreNotToldWhereTheQueueHasJustRoomEnough) {
  fillTheQueue();
  server.release();
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_EQ(plugin.answerCount(), capacity + 1);
  EXPECT_EQ(plugin.host().batchWaits(), Told{});
}

TEST_F(BatchWaits, AreNotToldOfAWorkerThatSendsFromADeliveryAndNeverWaits) {
  plugin.onDelivery([&](const Answer& answer) {
    if (answer.id() != 1) return;
    EXPECT_EQ(plugin.send(cheap(capacity + 100)), 0);
  });
  plugin.send(Request("GET", "/x").id(1));
  plugin.waitForAnswers(capacity + 101);
  EXPECT_EQ(plugin.host().batchWaits(), Told{});
}

TEST_F(BatchWaits, EndWhereShutdownAbandonsTheBatch) {
  holdTheWorker();
  sendBesides(cheap(capacity + 100));
  plugin.host().waitForBatchWaits(1);
  std::jthread control([&] { EXPECT_EQ(plugin.shutdown(), 0); });
  producer.join();  // although the worker is still held
  EXPECT_EQ(plugin.host().batchWaits(), (Told{true, false}));
  EXPECT_FALSE(lastOfTheBatch().metadata.empty());
  server.release();
  control.join();
}

TEST_F(BatchWaits, OfAHostThatDoesNotAskAreToldToNobody) {
  plugin.host().doNotHearOfBatchWaits();
  fillTheQueue();
  sendBesides(cheap(1));
  plugin.log().waitForLine("AffinityQueue is full");
  letTheProducerEnd();
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_EQ(plugin.answerCount(), capacity + 2);
}

// A host written in C++ whose function throws, which it must not.
TEST_F(BatchWaits, GoOnThoughTheHostsFunctionThrows) {
  plugin.host().onBatchWaits([](bool) { throw std::runtime_error("boom"); });
  fillTheQueue();
  sendBesides(cheap(1));
  const auto line = plugin.log().waitForLine("boom");
  EXPECT_EQ(line.level, QOR_LOG_ERROR);
  EXPECT_TRUE(line.text.ends_with("Exception from batch_waits: boom")) << line.text;
  letTheProducerEnd();
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_EQ(plugin.answerCount(), capacity + 2);
}

// --- Fair while full ---------------------------------------------------------------------------

// A third of the messages has one key, whose worker is slow: in the end they fill the queue. Each
// that is finished makes room for those behind it, which the many other workers take at once.
TEST(BatchWaitsBesideASlowKey, DoNotKeepTheOtherWorkersWithoutWork) {
  Gate slow("the next request of the key to be answered");
  ScriptedServer server([&](Connection& connection) {
    while (connection.readRequest()) {
      slow.pass();
      connection.sendResponse(200, {}, "");
    }
  });
  PluginUnderTest plugin{Config(server.port()).numClients(64)};
  constexpr std::size_t inTheBeginning =
      capacity + 1;  // of the key: queued, and one with its worker
  constexpr std::size_t steps = 50;
  std::vector<Message> batch;
  for (std::size_t i = 0; i < inTheBeginning + steps; ++i) {
    batch.push_back(Request("GET", "/x").id(1).key("slow").message());
    for (Message& message : cheap(2)) batch.push_back(std::move(message));
  }
  const std::size_t all = batch.size();
  std::jthread producer([&] { EXPECT_EQ(plugin.send(std::span(batch)), 0); });
  const std::shared_ptr<Gate> opensAtTheEnd(&slow, [all](Gate* gate) { gate->open(all); });
  plugin.waitForAnswers(2 * capacity);
  for (std::size_t i = 1; i <= steps; ++i) {
    slow.open(1);
    plugin.waitForAnswers(2 * capacity + 3 * i);
  }
  slow.open(all);
  producer.join();
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_EQ(plugin.answerCount(), all);
}

}  // namespace
}  // namespace test_support
