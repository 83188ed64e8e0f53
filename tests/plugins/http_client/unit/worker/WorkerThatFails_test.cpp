// What is thrown in the midst of a worker: while it is made, nothing of the transport is left;
// while it serves a request, that request is answered, and the worker goes on. That the other
// workers are freed is for the address sanitizer to find.
//
// This program has a log function of its own, which throws at a chosen line: a host must not do
// that, but it is what reaches a constructor, or a request's way, in its midst.
#include <array>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Messages.hpp"
#include "tests/support/ScriptedServer.hpp"
#include "tests/support/ServiceDoubles.hpp"

namespace {

enum class Thrown { Exception, Number };

// Called by workers too.
struct {
  std::mutex mutex;
  std::vector<std::string> lines;
  std::string failingPrefix;  // empty: nothing is thrown
  Thrown thrown = Thrown::Exception;

  void write(const char* text) {
    const std::lock_guard lock(mutex);
    lines.emplace_back(text);
    if (failingPrefix.empty() || !lines.back().starts_with(failingPrefix)) return;
    if (thrown == Thrown::Number) throw 42;
    throw std::runtime_error("boom");
  }
} log;  // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)

}  // namespace

extern "C" {

void* qor_create_plugin_with_params_HTTPClient(const char* pluginName, const char* chainId,
                                               qor_data_t configuration, void* statusHandle,
                                               void* hostHandle);
int qor_plugin_start_HTTPClient(void* plugin);
int qor_plugin_shutdown_HTTPClient(void* plugin);
int qor_plugin_setNextTowardsHost_HTTPClient(void* plugin, void* chainHandle,
                                             qor_send_batch_towards_host_t sendBatch);
int qor_plugin_sendBatchTowardsTransport_HTTPClient(void* plugin, qor_message_t* start,
                                                    qor_message_t* end);
int qor_destroy_plugin_HTTPClient(void* plugin);

void qor_log_at(const char*, int, const char* format, ...) {
  std::array<char, 500> text{};
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  log.write(text.data());
}

}  // extern "C"

namespace test_support {
namespace {

class WorkerThatFails : public testing::Test {
 protected:
  WorkerThatFails() { log.lines.clear(); }
  ~WorkerThatFails() override { log.failingPrefix.clear(); }

  void* create() {
    return qor_create_plugin_with_params_HTTPClient("name", "chain", configuration.raw(),
                                                    status.handle(), host.handle());
  }

  StatusDouble status;
  HostDouble host;
  const data_t configuration{Config(1).numClients(4).map()};
};

TEST_F(WorkerThatFails, FailsTheCreationAndLeavesNothingBehind) {
  log.failingPrefix = "<connectivity.name.chain> {2} Connecting to ";
  EXPECT_EQ(create(), nullptr);
  EXPECT_EQ(log.lines, (std::vector<std::string>{
                           "<connectivity.name.chain> {0} Connecting to http://127.0.0.1:1",
                           "<connectivity.name.chain> {1} Connecting to http://127.0.0.1:1",
                           "<connectivity.name.chain> {2} Connecting to http://127.0.0.1:1",
                           "<connectivity.name.chain> Exception from create: boom"}));
  EXPECT_TRUE(status.items().empty());
}

TEST_F(WorkerThatFails, LeavesTheNextCreationAlone) {
  log.failingPrefix = "<connectivity.name.chain> {3} ";
  EXPECT_EQ(create(), nullptr);
  log.failingPrefix.clear();
  void* const plugin = create();
  ASSERT_NE(plugin, nullptr);
  EXPECT_EQ(log.lines.back(), "<connectivity.name.chain> Created 4 Client Session Threads");
  EXPECT_EQ(qor_destroy_plugin_HTTPClient(plugin), 0);
  EXPECT_TRUE(status.items().empty());
}

// --- A request that fails -----------------------------------------------------------------------

struct Failure {
  const char* name;
  const char* line;  // at which something is thrown
  Thrown thrown;
  const char* text;  // of the answer
  bool failed;       // the transport's status becomes FAILED
};

std::string nameOf(const testing::TestParamInfo<Failure>& info) { return info.param.name; }

// One worker whose log fails at a line of the second of three requests.
class RequestThatFails : public testing::TestWithParam<Failure> {
 protected:
  RequestThatFails() {
    log.lines.clear();
    log.thrown = GetParam().thrown;
    log.failingPrefix = std::string("<connectivity.name.chain> {0} ") + GetParam().line;
  }
  ~RequestThatFails() override {
    log.failingPrefix.clear();
    log.thrown = Thrown::Exception;
  }

  std::vector<Answer> answersTo(std::vector<Message>&& batch) {
    const data_t configuration{Config(server.port()).map()};
    void* const plugin = qor_create_plugin_with_params_HTTPClient(
        "name", "chain", configuration.raw(), status.handle(), host.handle());
    EXPECT_NE(plugin, nullptr);
    std::vector<Answer> answers;  // read once the worker has been joined
    const auto keep = [](void* handle, qor_message_t* start, qor_message_t*) {
      static_cast<std::vector<Answer>*>(handle)->emplace_back(
          std::move(reinterpret_cast<Message&>(*start)));
      return 0;
    };
    EXPECT_EQ(qor_plugin_setNextTowardsHost_HTTPClient(plugin, &answers, keep), 0);
    EXPECT_EQ(qor_plugin_start_HTTPClient(plugin), 0);
    auto* const raw = reinterpret_cast<qor_message_t*>(batch.data());
    EXPECT_EQ(qor_plugin_sendBatchTowardsTransport_HTTPClient(plugin, raw, raw + batch.size()), 0);
    EXPECT_EQ(qor_plugin_shutdown_HTTPClient(plugin), 0);
    EXPECT_EQ(qor_destroy_plugin_HTTPClient(plugin), 0);
    return answers;
  }

  const LogDouble everyLevel;  // all that it does here is to ask for every line
  ScriptedServer server{[](Connection& connection) {
    while (const auto request = connection.readRequest()) {
      connection.sendResponse(request->target == "/fails" ? 201 : 200, {}, request->target);
    }
  }};
  StatusDouble status;
  HostDouble host;
};

TEST_P(RequestThatFails, IsAnsweredOnceAndTheWorkerGoesOn) {
  std::vector<Message> batch;
  batch.push_back(Request("POST", "/before").id(1).body("x").message());
  batch.push_back(Request("GET", "/fails").id(2).message());
  batch.push_back(Request("POST", "/second").id(3).body("x").message());
  const std::vector<Answer> answers = answersTo(std::move(batch));
  ASSERT_EQ(answers.size(), 3U);
  EXPECT_EQ(answers[0].id(), 1);
  EXPECT_EQ(answers[0].body(), "/before");
  EXPECT_EQ(answers[1].id(), 2);
  EXPECT_EQ(answers[1].status(), 400);
  EXPECT_TRUE(answers[1].isError());
  EXPECT_EQ(answers[1].reason(), GetParam().text);
  EXPECT_EQ(answers[1].text("http/path"), "/fails");
  EXPECT_EQ(answers[2].id(), 3);
  EXPECT_EQ(answers[2].body(), "/second");
  const std::vector<std::string> online{"STARTING", "ONLINE"};
  const std::vector<std::string> failedOnce{"STARTING", "ONLINE", "FAILED", "ONLINE"};
  EXPECT_EQ(status.history("name.chain.status"), GetParam().failed ? failedOnce : online);
}

INSTANTIATE_TEST_SUITE_P(
    Anywhere, RequestThatFails,
    testing::Values(Failure{"WhileItIsPrepared", "Handling a request for GET path /fails",
                            Thrown::Exception, "boom", false},
                    Failure{"WithWhatIsNoException", "Handling a request for GET path /fails",
                            Thrown::Number, "Unknown exception", false},
                    Failure{"WhileItsHeadIsWritten", "   request payload: <no payload>",
                            Thrown::Exception, "boom", false},
                    Failure{"WhileItsAnswerIsMade", "   response status = 201", Thrown::Exception,
                            "boom", true},
                    Failure{"WhileItsAnswerIsMadeWithWhatIsNoException", "   response status = 201",
                            Thrown::Number, "Unknown exception", true}),
    nameOf);

}  // namespace
}  // namespace test_support
