// From the workers back to the host: one answer for each request, one delivery at a time.
#include <atomic>
#include <chrono>
#include <csignal>
#include <fstream>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/EchoServer.hpp"
#include "tests/plugins/http_client/NumberedRequests.hpp"
#include "tests/support/PluginUnderTest.hpp"

namespace test_support {
namespace {

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

TEST(Dispatch, AnswersOnceThoughTheHostsStatusFunctionThrowsWhatIsNoException) {
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
  EXPECT_EQ(answers[1].status(), 200);
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

}  // namespace
}  // namespace test_support
