// Every two entry points at the same time, on two threads: the first is held inside, by a function
// of the host that does not return or by a delivery that does not end, while the second begins.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/ActingLog.hpp"
#include "tests/plugins/http_client/EchoServer.hpp"
#include "tests/plugins/http_client/NumberedRequests.hpp"
#include "tests/support/PluginUnderTest.hpp"

namespace test_support {
namespace {

enum class Entry { Start, HostReady, SetNext, Send, Shutdown, Destroy };

const char* nameOf(Entry entry) {
  switch (entry) {
    case Entry::Start:
      return "Start";
    case Entry::HostReady:
      return "HostReady";
    case Entry::SetNext:
      return "SetNext";
    case Entry::Send:
      return "Send";
    case Entry::Shutdown:
      return "Shutdown";
    case Entry::Destroy:
      return "Destroy";
  }
  return "";
}

class DispatchPairs : public testing::TestWithParam<std::tuple<Entry, Entry>> {
 protected:
  static Entry first() { return std::get<0>(GetParam()); }
  static Entry second() { return std::get<1>(GetParam()); }
  // A start is held before anything runs; everything else while the workers do.
  static PluginOptions options(LogDouble& unused) {
    PluginOptions options;
    options.log = &unused;
    options.start = first() != Entry::Start;
    return options;
  }

  // The line at which the first call is held; none where a delivery holds it.
  static std::optional<std::string_view> heldAt() {
    if (first() == Entry::Start) return "Could not enable queue flush notifications";
    if (first() == Entry::Send) return "No concurrencyControlKey";
    return std::nullopt;
  }

  void write(std::string_view text) {
    const auto at = heldAt();
    if (at && _holds && holds(text, *at) && !_reached.isSet()) hold();
  }
  void hold() {
    _reached.set();
    _goesOn.wait();
  }

  void call(Entry entry) {
    switch (entry) {
      case Entry::Start:
        plugin->start();
        break;
      case Entry::HostReady:
        EXPECT_EQ(plugin->library().hostReady(plugin->instance()), 0);
        break;
      case Entry::SetNext:
        EXPECT_EQ(plugin->library().setNextTowardsHost(plugin->instance(), this, &deliver), 0);
        break;
      case Entry::Send:
        send();
        break;
      case Entry::Shutdown:
        EXPECT_EQ(plugin->library().shutdown(plugin->instance()), 0);
        break;
      case Entry::Destroy:
        EXPECT_EQ(plugin->destroy(), 0);
        _destroyed = true;
        break;
    }
  }
  void send() {
    Message message = get(++_lastId).message();
    EXPECT_EQ(plugin->send(std::span(&message, 1)), 0);
    if (message.metadata.table() == nullptr) ++_taken;
  }

  static int deliver(void* context, qor_message_t* start, qor_message_t* /*end*/) {
    auto& self = *static_cast<DispatchPairs*>(context);
    if (self._holdsDelivery.exchange(false)) self.hold();
    ++self._answered;
    const Answer answer(std::move(*reinterpret_cast<Message*>(start)));
    return 0;
  }

  // Both calls at once, and then the end.
  void meet() {
    _holds = true;
    if (!heldAt()) {
      _holdsDelivery = true;
      send();
      _reached.wait();
    }
    std::thread one([this] { call(first()); });
    _reached.wait();
    Event done("the second call to return");
    std::thread other([this, &done] {
      call(second());
      done.set();
    });
    done.isSetWithin(std::chrono::milliseconds(20));  // or it waits for the first
    _goesOn.set();
    one.join();
    other.join();
    if (!_destroyed) {
      EXPECT_EQ(plugin->destroy(), 0);
    }
  }

  EchoServer server;
  PluginUnderTest* plugin = nullptr;
  std::atomic<bool> _holds{false};
  std::atomic<bool> _holdsDelivery{false};
  Event _reached{"the first call to be inside"};
  Event _goesOn{"the first call to go on"};
  std::atomic<long long> _lastId{0};
  std::atomic<std::size_t> _taken{0};
  std::atomic<std::size_t> _answered{0};
  std::atomic<bool> _destroyed{false};
};

// Nothing hangs, nothing is used that was freed (the sanitizers look), and what was taken is
// answered once or was dropped by an end without a shutdown.
TEST_P(DispatchPairs, MeetWithoutHarm) {
  LogDouble unused;
  std::atomic<std::size_t> dropped{0};
  const ActingLog log([&](std::string_view text) {
    const auto at = text.find("Dropped ");
    if (at != std::string_view::npos) dropped += std::stoul(std::string(text.substr(at + 8)));
    write(text);
  });
  PluginUnderTest tested{Config(server.port()).numClients(2), options(unused)};
  plugin = &tested;
  tested.host().setEnableResult(1);
  ASSERT_EQ(tested.library().setNextTowardsHost(tested.instance(), this, &deliver), 0);
  meet();
  EXPECT_EQ(_answered + dropped, _taken);
}

// What begins after destroy has begun is the host's error.
std::vector<std::tuple<Entry, Entry>> pairs() {
  std::vector<std::tuple<Entry, Entry>> all;
  for (const Entry one : {Entry::Start, Entry::SetNext, Entry::Send, Entry::Shutdown}) {
    for (const Entry other : {Entry::Start, Entry::HostReady, Entry::SetNext, Entry::Send,
                              Entry::Shutdown, Entry::Destroy}) {
      all.emplace_back(one, other);
    }
  }
  return all;
}

INSTANTIATE_TEST_SUITE_P(Of, DispatchPairs, testing::ValuesIn(pairs()), [](const auto& pair) {
  return std::string(nameOf(std::get<0>(pair.param))) + "And" + nameOf(std::get<1>(pair.param));
});

}  // namespace
}  // namespace test_support
