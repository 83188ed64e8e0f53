// A worker at its place: it takes, answers and delivers, one message at a time, until the end. That
// it survives whatever is thrown stands in WorkerThatFails_test.cpp.
#include "plugins/http_client/worker/ClientSessionThread.hpp"

#include <atomic>
#include <csignal>
#include <cstdint>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "connectivity/StatusReporter.hpp"
#include "orrery/RefCountedObject.hpp"
#include "orrery/SchedulableQueue.hpp"
#include "tests/plugins/http_client/NumberedRequests.hpp"
#include "tests/plugins/http_client/TransportParts.hpp"
#include "tests/support/Event.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace connectivity::plugins {
namespace {

using test_support::Config;
using test_support::Connection;
using test_support::Gate;
using test_support::get;
using test_support::HostDouble;
using test_support::Request;
using test_support::ScriptedServer;
using test_support::StatusDouble;
using testing::ElementsAre;
using testing::StartsWith;
using Told = test_support::Answer;

void echo(Connection& connection) {
  while (const auto request = connection.readRequest()) {
    connection.sendResponse(200, {}, request->target);
  }
}

// The transport, as its worker sees it.
class Owner final : public WorkerOwner {
 public:
  void adoptCurrentThread() override { ++adopted; }
  void deliver(Answer&& answer) noexcept override {
    if (whenDelivered) whenDelivered(answer);
    {
      const std::lock_guard lock(_mutex);
      _answers.emplace_back(std::move(answer.message));
    }
    _delivered.open();
  }
  // The first so many answers.
  std::vector<Told> wait(std::size_t howMany) {
    while (_delivered.passed() < howMany) _delivered.pass();
    const std::lock_guard lock(_mutex);
    return _answers;
  }

  std::atomic<int> adopted{0};
  std::function<void(const Answer&)> whenDelivered;  // set before anything is sent

 private:
  Gate _delivered{"an answer"};
  std::mutex _mutex;
  std::vector<Told> _answers;
};

struct Place {
  explicit Place(const Config& config) : parts(config) {}

  void send(const Request& request) {
    Message message = request.message();
    dispatcher.push(&message, &message + 1, WhenFull::Wait);
  }
  std::string item(const std::string& name) const {
    return status.text("name.chain." + name).value_or("(absent)");
  }

  TransportParts parts;
  HostDouble host;
  StatusDouble status;
  StatusReporter reporter{status.handle()};
  Owner owner;
  std::atomic<bool> shuttingDown{false};
  Dispatcher dispatcher{1, parts.keys, parts.logger, host.handle(), shuttingDown};
  Metrics metrics{reporter, "name.chain", 1};
  TlsContexts contexts{TlsSettings{parts.options.tls.certificateAuthorityFile}};
  Resolver resolver;
  const Workplace workplace{owner,   parts.options, parts.keys, parts.logger, dispatcher,
                            metrics, parts.cookies, contexts,   resolver};
};

// A worker that runs until the end of its test.
class Worker {
 public:
  explicit Worker(Place& place)
      : _place(place), thread(new ClientSessionThread(place.workplace, 0)) {
    thread->start();
  }
  ~Worker() { end(); }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  void end() {
    _place.dispatcher.terminate();
    thread->stop();
  }

 private:
  Place& _place;

 public:
  const orrery::IntrusivePtr<ClientSessionThread> thread;
};

TEST(ClientSessionThread, AnswersEachMessageOnceInTheOrderOfItsQueue) {
  ScriptedServer server(echo);
  Place place{Config(server.port())};
  Worker worker(place);
  place.send(get(1, "/first"));
  place.send(get(2, "/%zz"));
  place.send(get(3).without("http"));
  place.send(get(4, "/last"));
  const auto answers = place.owner.wait(4);
  EXPECT_THAT(test_support::idsOf(answers), ElementsAre(1, 2, 3, 4));
  EXPECT_EQ(answers[0].body(), "/first");
  EXPECT_EQ(answers[1].reason(), "Invalid percent-encoding in http.path: /%zz");
  EXPECT_EQ(answers[2].reason(), "No method");
  EXPECT_EQ(answers[3].body(), "/last");
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(ClientSessionThread, TakesItsThreadAndBlocksSigpipeThere) {
  ScriptedServer server(echo);
  Place place{Config(server.port())};
  std::atomic<bool> blocked{false};
  place.owner.whenDelivered = [&](const Answer&) {
    sigset_t set;
    pthread_sigmask(SIG_SETMASK, nullptr, &set);
    blocked = sigismember(&set, SIGPIPE) == 1;
  };
  Worker worker(place);
  place.send(get(1));
  place.owner.wait(1);
  EXPECT_TRUE(blocked);
  EXPECT_EQ(place.owner.adopted, 1);
}

TEST(ClientSessionThread, ReturnsHomeAfterARequestThatARedirectLedAway) {
  ScriptedServer elsewhere(echo);
  ScriptedServer server([&](Connection& connection) {
    while (const auto request = connection.readRequest()) {
      connection.sendResponse(
          request->target == "/away" ? 301 : 200,
          {{"Location", "http://127.0.0.1:" + std::to_string(elsewhere.port()) + "/there"}},
          "home");
    }
  });
  Place place{Config(server.port())};
  Worker worker(place);
  place.send(get(1, "/away"));
  place.send(get(2, "/x"));
  const auto answers = place.owner.wait(2);
  EXPECT_EQ(answers[0].body(), "/there");
  EXPECT_EQ(answers[1].body(), "home");
}

TEST(ClientSessionThread, CountsAnAnswerBeforeAndItsRequestAfterItsDelivery) {
  ScriptedServer server(echo);
  Place place{Config(server.port())};
  std::vector<std::string> seen;  // the worker's
  place.owner.whenDelivered = [&](const Answer&) {
    seen.push_back(place.item("status") + " " + place.item("requestSizeMaxInLastHourBytes"));
  };
  Worker worker(place);
  place.send(Request("POST", "/x").id(1).body("12345"));
  place.send(Request("POST", "/x").id(2).body("1234567"));
  place.owner.wait(2);
  worker.end();
  EXPECT_THAT(seen, ElementsAre("ONLINE 0", "ONLINE 5"));
  EXPECT_EQ(place.item("requestSizeMaxInLastHourBytes"), "7");
}

TEST(ClientSessionThread, CountsNothingOfARefusedRequestAndAllOfAFailedOne) {
  ScriptedServer server([](Connection& connection) { connection.readRequest(); });
  Place place{Config(server.port())};
  std::vector<std::string> seen;
  place.owner.whenDelivered = [&](const Answer& answer) {
    seen.push_back(place.item("status") + " " +
                   (answer.requestBytes ? std::to_string(*answer.requestBytes) : "no sample"));
  };
  Worker worker(place);
  place.send(Request("POST", "/%zz").id(1).body("1"));
  place.send(Request("POST", "/x").id(2).body("123"));
  place.owner.wait(2);
  worker.end();
  EXPECT_THAT(seen, ElementsAre("STARTING no sample", "FAILED 3"));
}

TEST(ClientSessionThread, DeliversThoughTheStatusItemsFail) {
  ScriptedServer server(echo);
  Place place{Config(server.port())};
  place.status.fail(".status");
  Worker worker(place);
  place.send(get(1));
  EXPECT_EQ(place.owner.wait(1)[0].body(), "/x");
  EXPECT_EQ(place.parts.lines.waitForLine("Exception from updateStatus: boom").level,
            QOR_LOG_ERROR);
}

class CountingQueue final : public orrery::SchedulableQueue {
 public:
  void entered() noexcept override { ++entries; }
  void left() noexcept override { ++exits; }
  std::atomic<int> entries{0};
  std::atomic<int> exits{0};
};

TEST(ClientSessionThread, ServesWithinTheQueueOfTheHostsScheduler) {
  ScriptedServer server(echo);
  CountingQueue queue;
  Place place{Config(server.port())};
  Worker worker(place);
  place.send(get(1));
  place.owner.wait(1);
  EXPECT_EQ(queue.entries, 0);
  worker.thread->schedulableQueue = &queue;
  place.send(get(2));
  place.owner.wait(2);
  worker.end();
  EXPECT_EQ(queue.entries, 1);
  EXPECT_EQ(queue.exits, 1);
}

TEST(ClientSessionThread, EndsWithItsQueueAndClosesItsConnection) {
  ScriptedServer server(echo);
  Place place{Config(server.port())};
  Worker worker(place);
  place.send(get(1));
  place.owner.wait(1);
  worker.end();
  server.waitForEndedConnections(1);
  EXPECT_TRUE(place.parts.lines.contains(
      "HTTPClient - Caught exception during processing - This queue has been terminated"));
}

TEST(ClientSessionThread, MayBeMadeAndNeverRun) {
  Place place{Config(1)};
  const orrery::IntrusivePtr<ClientSessionThread> never(
      new ClientSessionThread(place.workplace, 7));
  EXPECT_EQ(place.owner.adopted, 0);
  EXPECT_TRUE(place.parts.lines.contains("{7} Connecting to http://127.0.0.1:1"));
}

TEST(ClientSessionThread, IsNotMadeWhereItsAuthoritiesCannotBeRead) {
  Place place{Config(443).tls("/nowhere/ca.pem")};
  EXPECT_THAT([&] { ClientSessionThread worker(place.workplace, 0); },
              testing::ThrowsMessage<std::runtime_error>(
                  StartsWith("HTTPClient configuration tlsCertificateAuthorityFile: cannot use "
                             "/nowhere/ca.pem: ")));
}

// What a library's exception is about stands in its long text alone.
TEST(ClientSessionThread, IsNotMadeForAHostThatNoCertificateCanName) {
  Place place{Config(443).tls().host(".")};
  EXPECT_THAT([&] { ClientSessionThread worker(place.workplace, 0); },
              testing::ThrowsMessage<std::runtime_error>(
                  "SSL context exception: Cannot verify certificates for the host"));
}

}  // namespace
}  // namespace connectivity::plugins
