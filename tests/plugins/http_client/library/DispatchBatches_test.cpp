// From a batch to the workers, and back: keys, flushes, barriers, deliveries.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "orrery/SchedulableQueue.hpp"
#include "tests/plugins/http_client/EchoServer.hpp"
#include "tests/support/PluginUnderTest.hpp"

namespace test_support {
namespace {

Request get(long long id, const char* path = "/x") { return Request("GET", path).id(id); }

std::vector<long long> idsOf(const std::vector<Answer>& answers) {
  std::vector<long long> ids;
  ids.reserve(answers.size());
  for (const auto& answer : answers) ids.push_back(answer.id());
  return ids;
}

std::vector<long long> upTo(long long last) {
  std::vector<long long> ids;
  for (long long id = 1; id <= last; ++id) ids.push_back(id);
  return ids;
}

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
  for (const char* const name : {"a", "b", "c", "d", "e", "f", "g", "h"}) {
    const std::string path = std::string("/") + name;
    plugin.request(Request("GET", path.c_str()).key(name));
    const auto hash = connectivity::hashes::hash(textValue(name));
    const auto worker = static_cast<std::uint32_t>(hash) % workers;
    EXPECT_TRUE(plugin.log().contains("{" + std::to_string(worker) +
                                      "} Handling a request for GET path " + path))
        << name;
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

// --- Deliveries --------------------------------------------------------------------------------

TEST(Dispatch, DeliversOneAnswerAtATime) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(4)};
  std::atomic<int> inside{0};
  std::atomic<bool> together{false};
  plugin.onDelivery([&](const Answer&) {
    if (++inside > 1) together = true;
    std::this_thread::yield();
    --inside;
  });
  for (const auto id : upTo(100)) plugin.send(get(id));
  plugin.waitForAnswers(100);
  EXPECT_FALSE(together);
}

TEST(Dispatch, ReportsThatTheHostRefusedAResponseAndGoesOn) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port())};
  plugin.setDeliveryResult(7);
  plugin.send(get(1));
  const auto line = plugin.log().waitForLine("The host refused a response");
  EXPECT_EQ(line.level, QOR_LOG_WARN);
  EXPECT_EQ(line.text, "<connectivity.plugin.chain> The host refused a response (7)");
  plugin.setDeliveryResult(0);
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_EQ(plugin.answerCount(), 1U);
  EXPECT_EQ(plugin.statusItem(".responsesTowardsHost"), "1");
}

// A host written in C++ whose function throws, which it must not: the request is answered all the
// same, and not twice.
TEST(Dispatch, AnswersOnceThoughTheHostsFunctionThrows) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port())};
  std::atomic<int> calls{0};
  const auto thrower = [](void* handle, qor_message_t*, qor_message_t*) -> int {
    ++*static_cast<std::atomic<int>*>(handle);
    throw std::runtime_error("boom");
  };
  plugin.library().setNextTowardsHost(plugin.instance(), &calls, thrower);
  plugin.send(get(1));
  plugin.send(get(2));
  plugin.log().waitForLine("Exception from sendResponse: boom", 2);
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_EQ(calls, 2);
}

// A host written in C++ whose status function throws what is no exception, when the transport goes
// online for the second time.
struct ThrowingStatus {
  std::atomic<int> timesOnline{0};
  qor_status_services_t services{this, &create, &set, &remove};

  static void* create(void* context, const char* key, const char*) {
    return std::string_view(key).ends_with(".status") ? context : &otherItem;
  }
  static void set(void* context, void* item, const char* text) {
    if (item != context || text != std::string_view("ONLINE")) return;
    if (++static_cast<ThrowingStatus*>(context)->timesOnline == 2) throw 42;
  }
  static void remove(void*, void*) {}
  static inline int otherItem = 0;
};

TEST(Dispatch, AnswersARequestThatFailsWithWhatIsNoException) {
  ScriptedServer server({[](Connection& connection) {
                           connection.readRequest();
                           connection.send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nshort");
                         },
                         [](Connection& connection) {
                           while (connection.readRequest()) connection.sendResponse(200);
                         }});
  LogDouble log;
  HostDouble host;
  ThrowingStatus status;
  std::vector<Answer> answers;  // read once the worker has been joined
  const auto keep = [](void* handle, qor_message_t* start, qor_message_t*) {
    static_cast<std::vector<Answer>*>(handle)->emplace_back(
        std::move(reinterpret_cast<Message&>(*start)));
    return 0;
  };
  const PluginLibrary library;
  const data_t config{Config(server.port()).map()};
  void* const plugin =
      library.create("name", "chain", config.raw(), &status.services, host.handle());
  ASSERT_NE(plugin, nullptr);
  library.setNextTowardsHost(plugin, &answers, keep);
  ASSERT_EQ(library.start(plugin), 0);
  for (const auto id : upTo(3)) {
    Message message = get(id).message();
    auto* const raw = reinterpret_cast<qor_message_t*>(&message);
    EXPECT_EQ(library.sendBatchTowardsTransport(plugin, raw, raw + 1), 0);
  }
  EXPECT_EQ(library.shutdown(plugin), 0);
  library.destroy(plugin);
  ASSERT_EQ(idsOf(answers), upTo(3));
  EXPECT_EQ(answers[0].reason(), "Error processing response stream: I/O error");
  EXPECT_EQ(answers[1].status(), 400);
  EXPECT_EQ(answers[1].reason(), "Unknown exception");
  EXPECT_EQ(answers[2].status(), 200);
}

// What is thrown where a failure is told keeps nobody from answering it.
TEST(Dispatch, AnswersOnceThoughTheHostsStatusFunctionThrows) {
  PluginUnderTest plugin{Config(unusedPort())};
  plugin.status().fail(".status");
  plugin.status().fail("Bytes");
  for (const auto id : upTo(2)) {
    const Answer answer = plugin.request(Request("POST", "/x").id(id).body("abc"));
    EXPECT_TRUE(answer.reason().starts_with("Connection refused")) << answer.reason();
  }
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_EQ(plugin.answerCount(), 2U);
  EXPECT_TRUE(plugin.log().contains("Exception from updateStatus: boom"));
}

TEST(Dispatch, BlocksSigpipeOnItsWorkers) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port())};
  std::atomic<bool> blocked{false};
  plugin.onDelivery([&](const Answer&) {
    sigset_t set;
    pthread_sigmask(SIG_SETMASK, nullptr, &set);
    blocked = sigismember(&set, SIGPIPE) == 1;
  });
  plugin.request(get(1));
  EXPECT_TRUE(blocked);
}

TEST(Dispatch, RefusesToBeConnectedFromADelivery) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port())};
  plugin.onDelivery([&](const Answer&) {
    const auto ignore = [](void*, qor_message_t*, qor_message_t*) { return 0; };
    EXPECT_EQ(plugin.library().setNextTowardsHost(plugin.instance(), nullptr, ignore), 1);
  });
  plugin.request(get(1));
  EXPECT_TRUE(
      plugin.log().contains("Exception from setNextTowardsHost: HTTPClient cannot be "
                            "connected from one of its own workers"));
}

bool isAsleep(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string line;
  std::getline(file, line);
  const auto name = line.rfind(')');  // the state follows it
  return name != std::string::npos && line.substr(name + 1, 2) == " S";
}

TEST(Dispatch, AnotherHostSideWaitsForTheDeliveryUnderWay) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port())};
  Event arrived("the answer at the second host side");
  const auto note = [](void* handle, qor_message_t*, qor_message_t*) {
    static_cast<Event*>(handle)->set();
    return 0;
  };
  std::atomic<pid_t> thread{0};
  std::atomic<bool> replaced{false};
  std::jthread connecting;
  plugin.onDelivery([&](const Answer&) {
    connecting = std::jthread([&] {
      thread = gettid();
      EXPECT_EQ(plugin.library().setNextTowardsHost(plugin.instance(), &arrived, note), 0);
      replaced = true;
    });
    const auto end = std::chrono::steady_clock::now() + patience;
    while (!replaced && !(thread != 0 && isAsleep(thread))) {
      if (std::chrono::steady_clock::now() > end) throw TimedOut("the second host side to wait");
      std::this_thread::yield();
    }
    EXPECT_FALSE(replaced);
  });
  plugin.request(get(1));
  connecting.join();
  EXPECT_TRUE(replaced);
  plugin.send(get(2));
  arrived.wait();
  EXPECT_EQ(plugin.answerCount(), 1U);
}

// --- The host calls back -----------------------------------------------------------------------

// A log of the host that does something for each line.
class ActingLog {
 public:
  using Action = std::function<void(std::string_view text)>;
  explicit ActingLog(Action action) : _action(std::move(action)) {
    qor_set_log_services(&_services);
  }
  ~ActingLog() { qor_set_log_services(nullptr); }
  ActingLog(const ActingLog&) = delete;
  ActingLog& operator=(const ActingLog&) = delete;

 private:
  static int level(void*, const char*) { return QOR_LOG_DEBUG; }
  static void write(void* context, const char*, int, const char* text) {
    static_cast<ActingLog*>(context)->_action(text);
  }
  const Action _action;
  const qor_log_services_t _services{this, &level, &write};
};

bool holds(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

TEST(Dispatch, LetsTheHostSendABatchFromItsLogFunction) {
  EchoServer server;
  LogDouble unused;
  PluginUnderTest* sender = nullptr;
  std::atomic<int> calls{0};
  const ActingLog log([&](std::string_view text) {
    // For each line of a batch's reading.
    if (!holds(text, "HTTPClient - ") || calls.fetch_add(1) >= 4) return;
    EXPECT_EQ(sender->send(get(9).key("b")), 0);
  });
  PluginOptions options;
  options.log = &unused;
  PluginUnderTest plugin{Config(server.port()).numClients(2), options};
  sender = &plugin;
  plugin.send(get(1).key("a").flush());
  plugin.waitForAnswers(5);
  EXPECT_GE(calls, 4);
}

// Deliveries whose first is refused. The worker of the first is held at the line that says so until
// the second is under way; the second then waits for what that worker counts next.
struct MeetingDeliveries {
  PluginUnderTest* plugin = nullptr;
  Event secondBegun{"the second delivery"};
  std::atomic<int> deliveries{0};
  std::atomic<bool> counted{false};

  static int deliver(void* handle, qor_message_t*, qor_message_t*) {
    auto& self = *static_cast<MeetingDeliveries*>(handle);
    if (self.deliveries.fetch_add(1) == 0) return 7;
    self.secondBegun.set();
    try {
      self.plugin->status().waitFor("plugin.chain.requestSizeMaxInLastHourBytes", "100");
      self.counted = true;
    } catch (const TimedOut& failure) {
      ADD_FAILURE() << failure.what();
    }
    return 0;
  }
};

TEST(Dispatch, CountsARequestWhileTheDeliveryOfAnotherBlocks) {
  EchoServer server;
  LogDouble unused;
  MeetingDeliveries meeting;
  const ActingLog log([&](std::string_view text) {
    if (holds(text, "The host refused a response")) meeting.secondBegun.wait();
  });
  PluginOptions options;
  options.log = &unused;
  options.start = false;
  PluginUnderTest plugin{Config(server.port()).numClients(2), options};
  meeting.plugin = &plugin;
  ASSERT_EQ(
      plugin.library().setNextTowardsHost(plugin.instance(), &meeting, &MeetingDeliveries::deliver),
      0);
  ASSERT_EQ(plugin.start(), 0);
  for (const auto id : upTo(2)) {
    plugin.send(Request("POST", "/x").id(id).body(std::string(100, 'x')));
  }
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_EQ(meeting.deliveries, 2);
  EXPECT_TRUE(meeting.counted);
}

// A flush object that sends a batch when it is freed.
struct SendingFlush {
  PluginUnderTest* plugin;
  static void* copy(void* object) { return new SendingFlush(*static_cast<SendingFlush*>(object)); }
  static void free(void* object) {
    const std::unique_ptr<SendingFlush> self(static_cast<SendingFlush*>(object));
    EXPECT_EQ(self->plugin->send(get(2)), 0);
  }
  static const char* text(void*) { return "flush"; }
  static constexpr qor_custom_operations_t operations{copy, free, text};
};

TEST(Dispatch, LetsTheHostSendABatchWhenItsFlushObjectIsFreed) {
  EchoServer server;
  PluginUnderTest plugin{Config(server.port()).numClients(2)};
  std::vector<Message> batch;
  batch.push_back(get(1).message());
  Message flush;
  put(flush.metadata, Keys{"qor.control.type"}, textValue("QueueFlush"));
  put(flush.metadata, Keys{"qor.controlObject"},
      data_t(connectivity::custom_t(
          qor_allocate_custom(new SendingFlush{&plugin}, &SendingFlush::operations))));
  batch.push_back(std::move(flush));
  plugin.send(std::move(batch));
  EXPECT_EQ(idsOf(plugin.waitForAnswers(2)), upTo(2));
}

// --- The host's scheduler ----------------------------------------------------------------------

class CountingQueue final : public orrery::SchedulableQueue {
 public:
  void entered() noexcept override { ++entries; }
  void left() noexcept override { ++exits; }
  std::atomic<int> entries{0};
  std::atomic<int> exits{0};
};

TEST(Dispatch, RunsRequestsInTheSchedulersQueueOfTheFirstBatchThatHasOne) {
  EchoServer server;
  CountingQueue queue;
  CountingQueue later;
  orrery::SchedulableQueue* seen = nullptr;
  {
    PluginUnderTest plugin{Config(server.port()).numClients(2)};
    plugin.onDelivery([&](const Answer&) { seen = orrery::SchedulableQueue::current(); });
    plugin.request(get(1));
    EXPECT_EQ(seen, nullptr);
    const auto sendWithin = [&](CountingQueue& current) {
      const orrery::SchedulableQueueGuard guard(&current);
      plugin.request(get(2));
    };
    sendWithin(queue);
    EXPECT_EQ(seen, &queue);
    sendWithin(later);
    EXPECT_EQ(seen, &queue);
  }
  EXPECT_EQ(queue.entries, 3);  // the batch, and two requests
  EXPECT_EQ(queue.exits, 3);
}

}  // namespace
}  // namespace test_support
