// From a batch to the lanes and from a lane to its worker, without workers and without requests.
#include "plugins/http_client/dispatch/Dispatcher.hpp"

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "connectivity/data_t.hpp"
#include "tests/plugins/http_client/NumberedRequests.hpp"
#include "tests/support/Event.hpp"
#include "tests/support/Messages.hpp"
#include "tests/support/ServiceDoubles.hpp"

namespace connectivity::plugins {
namespace {

using test_support::Answer;
using test_support::Event;
using test_support::flushMessage;
using test_support::get;
using test_support::HostDouble;
using test_support::LogDouble;
using test_support::textValue;
using testing::ElementsAre;
using testing::ThrowsMessage;

using Batch = std::vector<Message>;

template <typename... Requests>
Batch batchOf(const Requests&... requests) {
  Batch batch;
  (batch.push_back(requests.message()), ...);
  return batch;
}

std::string textOf(const std::exception_ptr& failure) {
  if (!failure) return "none";
  try {
    std::rethrow_exception(failure);
  } catch (const std::exception& exception) {
    return exception.what();
  }
}

// A key whose messages go to the first or to the second of two workers.
std::string keyFor(unsigned worker) {
  for (int number = 0;; ++number) {
    std::string key = "key" + std::to_string(number);
    if (static_cast<std::uint32_t>(hashes::hash(data_t(key))) % 2 == worker) return key;
  }
}

class DispatcherTest : public testing::Test {
 protected:
  void use(std::uint32_t workers) {
    _dispatcher = std::make_unique<Dispatcher>(workers, keys, logger, host.handle(), shuttingDown);
  }
  Dispatcher& dispatcher() { return *_dispatcher; }

  Dispatcher::Pushed push(Batch& batch, WhenFull whenFull = WhenFull::Wait) {
    return dispatcher().push(batch.data(), batch.data() + batch.size(), whenFull);
  }
  Dispatcher::Pushed push(Batch&& batch) { return push(batch); }
  long long take(unsigned worker) {
    return Answer(dispatcher().getNextMessageRequest(worker)).id();
  }

  // Up to its capacity.
  void fill() {
    Batch full;
    for (int id = 0; id < 2048; ++id) full.push_back(get(id).message());
    push(full);
  }

  // Takes the next message and ends it all, or finds that another has.
  void takeOne(unsigned worker) {
    try {
      lastTaken = take(worker);
      dispatcher().terminate();
    } catch (const QueueTerminated&) {
    }
  }
  // It asks there whether the host shuts down.
  void waitUntilAWorkerStandsAtABarrier() const {
    const auto end = std::chrono::steady_clock::now() + test_support::patience;
    while (host.shuttingDownCalls() == 0) {
      ASSERT_LT(std::chrono::steady_clock::now(), end);
      std::this_thread::yield();
    }
  }

  const LogDouble log{};
  HostDouble host;
  std::atomic<bool> shuttingDown{false};
  std::atomic<long long> lastTaken{0};
  const DataTConstants keys{};
  const Logger logger{"connectivity.test"};

 private:
  std::unique_ptr<Dispatcher> _dispatcher;
};

// --- Lanes --------------------------------------------------------------------------------------

TEST_F(DispatcherTest, RefusesToHaveNoWorkers) {
  EXPECT_THAT([&] { use(0); },
              ThrowsMessage<std::runtime_error>("Must have at least one consumer"));
}

TEST_F(DispatcherTest, GivesMessagesOfOneKeyToTheWorkerOfItsHashInOrder) {
  use(2);
  push(batchOf(get(1).key(keyFor(1)), get(2).key(keyFor(0)), get(3).key(keyFor(1))));
  EXPECT_EQ(dispatcher().queueSize(), 3U);
  EXPECT_EQ(take(1), 1);
  EXPECT_EQ(take(1), 3);
  EXPECT_EQ(take(0), 2);
}

TEST_F(DispatcherTest, GivesAMessageWithoutAKeyToWhoeverComesFirst) {
  use(2);
  push(batchOf(get(1), get(2)));
  EXPECT_EQ(take(1), 1);
  EXPECT_EQ(take(1), 2);
}

TEST_F(DispatcherTest, TakesAnEmptyKeyForNone) {
  use(2);
  push(batchOf(get(1).key(""), get(2).set("concurrencyControlKey", data_t())));
  EXPECT_EQ(take(1), 1);
  EXPECT_EQ(take(1), 2);
  EXPECT_EQ(log.count("No concurrencyControlKey"), 2U);
}

TEST_F(DispatcherTest, ReadsNeitherKeysNorFlagsForOneWorker) {
  use(1);
  const auto pushed = push(batchOf(get(1).key("a").flush(), get(2).key("b")));
  EXPECT_EQ(pushed.serialized, 0U);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(take(0), 1);
  EXPECT_EQ(take(0), 2);
}

TEST_F(DispatcherTest, LeavesWhatItTookEmpty) {
  use(1);
  Batch batch = batchOf(get(1).body("bytes"));
  EXPECT_EQ(textOf(push(batch).failure), "none");
  EXPECT_TRUE(batch[0].payload.empty());
  EXPECT_TRUE(batch[0].metadata.empty());
}

// --- What is wrong with a message ---------------------------------------------------------------

TEST_F(DispatcherTest, QueuesWhatStandsBeforeAMessageAtFaultAndLeavesTheRest) {
  use(2);
  Batch batch = batchOf(get(1), get(2).set("qor.control.type", textValue("QueueFlush")), get(3));
  EXPECT_EQ(textOf(push(batch).failure), "Couldn't locate queue flush object in message");
  EXPECT_EQ(dispatcher().queueSize(), 1U);
  EXPECT_EQ(take(0), 1);
  EXPECT_FALSE(batch[1].metadata.empty());
  EXPECT_EQ(Answer(std::move(batch[2])).id(), 3);
}

TEST_F(DispatcherTest, RefusesAKeyThatCannotBeHashed) {
  use(2);
  auto released = std::make_shared<Event>();
  Message flush = flushMessage(released);
  data_t custom = std::move(*flush.metadata.findText("qor.controlObject"));
  Batch batch = batchOf(get(1).set("concurrencyControlKey", std::move(custom)));
  EXPECT_EQ(textOf(push(batch).failure), "Cannot use custom values as a key");
  EXPECT_EQ(dispatcher().queueSize(), 0U);
}

// --- Barriers -----------------------------------------------------------------------------------

TEST_F(DispatcherTest, CountsMessagesThatAskForAFlush) {
  use(2);
  const auto serialized = [&](data_t&& flag) {
    return push(batchOf(get(1).set("concurrencyControlFlush", std::move(flag)))).serialized;
  };
  EXPECT_EQ(serialized(data_t(true)), 1U);
  EXPECT_EQ(serialized(textValue("true")), 1U);
  EXPECT_EQ(serialized(textValue("no")), 1U);
  EXPECT_EQ(serialized(data_t(0)), 1U);
  EXPECT_EQ(serialized(data_t(false)), 0U);
  EXPECT_EQ(serialized(textValue("false")), 0U);
  EXPECT_EQ(serialized(textValue("")), 0U);
  EXPECT_EQ(serialized(data_t()), 0U);
}

TEST_F(DispatcherTest, FinishesWhatStandsBeforeAMessageThatAsksForIt) {
  use(2);
  push(batchOf(get(1).key(keyFor(0)), get(2).flush()));
  EXPECT_EQ(take(0), 1);
  std::atomic<bool> firstDone{false};
  std::thread other([&] {
    takeOne(1);
    EXPECT_TRUE(firstDone) << "a worker has passed the barrier alone";
  });
  waitUntilAWorkerStandsAtABarrier();
  firstDone = true;
  takeOne(0);
  other.join();
  EXPECT_EQ(lastTaken, 2);
}

TEST_F(DispatcherTest, FreesAFlushObjectWhenTheLastWorkerHasPassedItsBarrier) {
  use(1);
  auto released = std::make_shared<Event>("the flush object to be freed");
  Batch batch;
  batch.push_back(flushMessage(released));
  batch.push_back(get(2).message());
  EXPECT_EQ(push(batch).serialized, 0U);
  EXPECT_FALSE(batch[0].metadata.empty()) << "nothing of it is taken but its object";
  EXPECT_FALSE(released->isSet());
  EXPECT_EQ(take(0), 2) << "a flush is no request";
  EXPECT_TRUE(released->isSet());
}

TEST_F(DispatcherTest, HoldsABarrierThoughTheHostCannotTellWhetherItGoes) {
  use(2);
  host.setShuttingDownResult(1);
  push(batchOf(get(1).flush()));
  std::atomic<bool> bothThere{false};
  std::thread other([&] {
    takeOne(1);
    EXPECT_TRUE(bothThere) << "a worker has passed the barrier alone";
  });
  log.waitForLine(
      "{1} HTTPClient - Caught exception during processing - An error occurred while "
      "checking if host is shutting down");
  bothThere = true;
  takeOne(0);
  other.join();
  EXPECT_EQ(lastTaken, 1);
}

TEST_F(DispatcherTest, PassesEveryBarrierOnceBarriersAreAbandoned) {
  use(2);
  push(batchOf(get(1).flush()));
  dispatcher().abandonBarriers(true);
  EXPECT_EQ(take(0), 1);
}

TEST_F(DispatcherTest, PassesABarrierAtOnceWhereTheHostIsShuttingDown) {
  use(2);
  host.setShuttingDown(true);
  push(batchOf(get(1).flush()));
  EXPECT_EQ(take(0), 1);
}

// --- The end ------------------------------------------------------------------------------------

TEST_F(DispatcherTest, TakesNothingOnceItIsShuttingDown) {
  use(2);
  shuttingDown = true;
  EXPECT_TRUE(dispatcher().isShuttingDown());
  Batch batch = batchOf(get(1), get(2).flush());
  const auto pushed = push(batch);
  EXPECT_EQ(pushed.serialized, 0U);
  EXPECT_EQ(textOf(pushed.failure), "none");
  EXPECT_EQ(dispatcher().queueSize(), 0U);
  EXPECT_EQ(Answer(std::move(batch[0])).id(), 1);
}

TEST_F(DispatcherTest, GivesABatchThatWaitsUpWhenItShutsDown) {
  use(1);
  fill();
  std::thread sender([&] {
    Batch batch = batchOf(get(2048));
    push(batch);
    EXPECT_EQ(Answer(std::move(batch[0])).id(), 2048) << "it was taken";
  });
  host.waitForBatchWaits(1);
  shuttingDown = true;
  dispatcher().wakeBatches();
  sender.join();
  EXPECT_EQ(dispatcher().queueSize(), 2048U);
}

TEST_F(DispatcherTest, RefusesWhatItWouldHaveToWaitForWhereNobodyTakesAnything) {
  use(2);
  Batch most;
  for (int id = 0; id < 2044; ++id) most.push_back(get(id).message());
  EXPECT_EQ(textOf(push(most, WhenFull::Refuse).failure), "none");
  // With a barrier for two there is room for two messages.
  Batch batch = batchOf(get(1).flush(), get(2), get(3));
  const auto pushed = push(batch, WhenFull::Refuse);
  EXPECT_EQ(textOf(pushed.failure), "The queue is full, and nobody takes anything yet");
  EXPECT_EQ(pushed.serialized, 1U) << "what was queued counts all the same";
  EXPECT_TRUE(batch[1].metadata.empty()) << "there was room for this one";
  EXPECT_EQ(Answer(std::move(batch[2])).id(), 3) << "it was taken";
  EXPECT_TRUE(host.batchWaits().empty());
  EXPECT_FALSE(log.contains("full, must wait"));
}

TEST_F(DispatcherTest, DropsWhatIsQueuedAndSaysHowMuch) {
  use(2);
  auto released = std::make_shared<Event>("the flush object to be freed");
  Batch batch = batchOf(get(1));
  batch.push_back(flushMessage(released));
  push(batch);
  EXPECT_EQ(dispatcher().drop(), 3U) << "a message, and a barrier for two";
  EXPECT_TRUE(released->isSet());
  EXPECT_EQ(dispatcher().queueSize(), 0U);
  EXPECT_EQ(dispatcher().drop(), 0U);
}

// The wait would go on to its own end, when the host is asked again.
TEST_F(DispatcherTest, WakesAWorkerAtABarrierWhenBarriersAreAbandoned) {
  use(2);
  push(batchOf(get(1).flush()));
  std::thread worker([&] { takeOne(0); });
  waitUntilAWorkerStandsAtABarrier();
  dispatcher().abandonBarriers(true);
  worker.join();
  EXPECT_EQ(lastTaken, 1);
  EXPECT_LE(host.shuttingDownCalls(), 1);
}

TEST_F(DispatcherTest, DrainsUntilItsWorkersHaveFinishedWhatIsQueued) {
  use(1);
  push(batchOf(get(1), get(2)));
  std::vector<long long> taken;
  std::thread worker([&] {
    try {
      for (;;) taken.push_back(take(0));
    } catch (const QueueTerminated&) {
    }
  });
  dispatcher().drain(1);
  EXPECT_EQ(dispatcher().queueSize(), 0U);
  dispatcher().terminate();
  worker.join();
  EXPECT_THAT(taken, ElementsAre(1, 2));
}

TEST_F(DispatcherTest, DrainsNothingWithoutRunningWorkersOrWhereTheHostIsGoing) {
  use(2);
  push(batchOf(get(1)));
  dispatcher().drain(0);
  host.setShuttingDown(true);
  dispatcher().drain(2);
  EXPECT_EQ(dispatcher().queueSize(), 1U);
}

TEST_F(DispatcherTest, DrainsAndThrowsAfterwardsWhereTheHostCannotTell) {
  use(1);
  host.setShuttingDownResult(1);
  push(batchOf(get(1)));
  long long taken = 0;
  std::thread worker([&] {
    taken = take(0);
    EXPECT_THROW(take(0), QueueTerminated);
  });
  EXPECT_THAT([&] { dispatcher().drain(1); },
              ThrowsMessage<std::runtime_error>(
                  "An error occurred while checking if host is shutting down"));
  dispatcher().terminate();
  worker.join();
  EXPECT_EQ(taken, 1);
}

TEST_F(DispatcherTest, GivesNothingOnceItIsTerminated) {
  use(1);
  push(batchOf(get(1)));
  dispatcher().terminate();
  EXPECT_THROW(take(0), QueueTerminated);
}

TEST_F(DispatcherTest, TellsTheHostThatABatchWaitsAndWaitsNoMore) {
  use(1);
  fill();
  EXPECT_TRUE(host.batchWaits().empty());
  std::thread sender([&] { push(batchOf(get(2048))); });
  host.waitForBatchWaits(1);
  for (int id = 0; id < 32; ++id) take(0);
  sender.join();
  EXPECT_EQ(host.batchWaits(), (std::vector<bool>{true, false}));
}

TEST_F(DispatcherTest, NeverWaitsWhereItIsToldNotTo) {
  use(1);
  Batch many;
  for (int id = 0; id < 2050; ++id) many.push_back(get(id).message());
  push(many, WhenFull::Grow);
  EXPECT_EQ(dispatcher().queueSize(), 2050U);
  EXPECT_TRUE(host.batchWaits().empty());
}

}  // namespace
}  // namespace connectivity::plugins
