// What the host does while the transport calls it: it sends batches, and lends its scheduler.
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "orrery/SchedulableQueue.hpp"
#include "tests/plugins/http_client/ActingLog.hpp"
#include "tests/plugins/http_client/EchoServer.hpp"
#include "tests/plugins/http_client/NumberedRequests.hpp"
#include "tests/support/PluginUnderTest.hpp"

namespace test_support {
namespace {

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
