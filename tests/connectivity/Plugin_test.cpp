#include "connectivity/Plugin.hpp"

#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/connectivity/HostCalls.hpp"

namespace connectivity {
namespace {

using connectivity_test::HostCalls;
using ::testing::ElementsAre;

class Transport : public AbstractTransport {
 public:
  using AbstractTransport::AbstractTransport;
  void sendBatchTowardsTransport(Message* start, Message* end) override {
    hostSide->sendBatchTowardsHost(start, end);
  }
  using AbstractTransport::config;
  using AbstractTransport::hostHandle;
  using AbstractTransport::hostSide;
  using Plugin::chainId;
  using Plugin::pluginName;
};

map_t someConfiguration() {
  map_t map;
  map.insert(data_t("host"), data_t("localhost"));
  return map;
}

TEST(PluginConstructorParameters, CopyWhatTheHostGave) {
  int status = 0;
  int host = 0;
  map_t configuration = someConfiguration();
  const PluginConstructorParameters parameters("plugin", "chain", configuration, &status, &host);
  *configuration.findText("host") = data_t("changed");
  EXPECT_EQ(parameters.pluginName, "plugin");
  EXPECT_EQ(parameters.chainId, "chain");
  EXPECT_STREQ(parameters.config.findText("host")->text(), "localhost");
  EXPECT_EQ(parameters.statusHandle, &status);
  EXPECT_EQ(parameters.hostHandle, &host);
}

class PluginFrame : public ::testing::Test {
 protected:
  HostCalls calls;
  int host = 0;
};

TEST_F(PluginFrame, KeepsItsOwnCopyOfTheParameters) {
  Transport plugin = [this] {
    PluginConstructorParameters parameters("plugin", "chain", someConfiguration(), nullptr, &host);
    return Transport(parameters);
  }();
  EXPECT_EQ(plugin.pluginName, "plugin");
  EXPECT_EQ(plugin.chainId, "chain");
  EXPECT_STREQ(plugin.config.findText("host")->text(), "localhost");
  EXPECT_EQ(plugin.hostHandle(), &host);
}

TEST_F(PluginFrame, LogsUnderItsNameAndChain) {
  const Transport plugin({"plugin", "chain", map_t(), nullptr, nullptr});
  EXPECT_EQ(plugin.getLogger().category(), "connectivity.plugin.chain");
  EXPECT_EQ(plugin.getLogger().name(), "connectivity.plugin.chain");
}

TEST_F(PluginFrame, DoesNothingInTheOperationsOfTheBase) {
  Transport plugin({"plugin", "chain", map_t(), nullptr, nullptr});
  calls.made.clear();
  plugin.start();
  plugin.hostReady();
  plugin.shutdown();
  EXPECT_TRUE(calls.made.empty());
}

TEST_F(PluginFrame, HasAStatusReporter) {
  Transport plugin({"plugin", "chain", map_t(), nullptr, nullptr});
  const auto item = plugin.getStatusReporter().createStatusItem("key", 1);
  EXPECT_THAT(calls.statusKeys, ElementsAre("key"));
}

TEST_F(PluginFrame, HasNoStatusReporterWhenBuiltWithoutStatusSupport) {
  Transport plugin("plugin", "chain");
  EXPECT_EQ(plugin.getLogger().category(), "connectivity.plugin.chain");
  EXPECT_EQ(plugin.hostHandle(), nullptr);
  try {
    plugin.getStatusReporter();
    FAIL() << "no failure";
  } catch (const std::runtime_error& failure) {
    EXPECT_STREQ(failure.what(), "Cannot call getStatusReporter when using the legacy constructor");
  }
}

// --- The side towards the host -------------------------------------------------------------------

struct ReceivedBatch {
  qor_message_t* start = nullptr;
  qor_message_t* end = nullptr;
};

int receiveBatch(void* chain, qor_message_t* start, qor_message_t* end) {
  *static_cast<ReceivedBatch*>(chain) = {start, end};
  return 17;
}

TEST(RemoteHostSide, HandsTheBatchToTheHostsFunctionAndGivesItsResult) {
  ReceivedBatch received;
  RemoteHostSide side(&received, &receiveBatch);
  Message messages[2];
  EXPECT_EQ(side.sendBatchTowardsHost(messages, messages + 2), 17);
  EXPECT_EQ(static_cast<void*>(received.start), messages);
  EXPECT_EQ(static_cast<void*>(received.end), messages + 2);
}

// Tells at its end which host side the transport has by then.
class WatchedSide : public HostSide {
 public:
  WatchedSide(const Transport& owner, std::vector<const HostSide*>& installedAtEnd)
      : _owner(owner), _installedAtEnd(installedAtEnd) {}
  ~WatchedSide() override { _installedAtEnd.push_back(_owner.hostSide.get()); }
  int sendBatchTowardsHost(Message*, Message*) override { return 0; }

 private:
  const Transport& _owner;
  std::vector<const HostSide*>& _installedAtEnd;
};

TEST(AbstractTransport, HasNoHostSideAtFirst) {
  const Transport plugin("plugin", "chain");
  EXPECT_EQ(plugin.hostSide, nullptr);
}

TEST(AbstractTransport, DestroysTheFirstHostSideOnceTheSecondStands) {
  std::vector<const HostSide*> installedAtEnd;
  Transport plugin("plugin", "chain");
  plugin.setNextTowardsHost(std::make_unique<WatchedSide>(plugin, installedAtEnd));
  EXPECT_TRUE(installedAtEnd.empty());
  auto second = std::make_unique<RemoteHostSide>(nullptr, nullptr);
  const HostSide* const expected = second.get();
  plugin.setNextTowardsHost(std::move(second));
  EXPECT_THAT(installedAtEnd, ElementsAre(expected));
}

// --- The exception barrier -----------------------------------------------------------------------

class ExceptionBarrier : public ::testing::Test {
 protected:
  template <typename Thrown>
  connectivity_test::LogCall lineFor(const Thrown& thrown, Level level, const char* operation) {
    const Logger logger("category");
    try {
      throw thrown;
    } catch (...) {
      handleException(logger, level, operation);
    }
    return calls.logged.at(0);
  }
  HostCalls calls;
};

TEST_F(ExceptionBarrier, LogsTheTextOfAStandardException) {
  const auto line = lineFor(std::logic_error("the reason"), Level::Error, "start");
  EXPECT_EQ(line.level, 2);
  EXPECT_EQ(line.format, "<%s> Exception from %s: %s");
  EXPECT_EQ(line.text, "<category> Exception from start: the reason");
}

TEST_F(ExceptionBarrier, LogsAnythingElseAsUnknown) {
  const auto line = lineFor(5, Level::Warn, "shutdown");
  EXPECT_EQ(line.level, 3);
  EXPECT_EQ(line.format, "<%s> Unknown exception from %s");
  EXPECT_EQ(line.text, "<category> Unknown exception from shutdown");
}

TEST_F(ExceptionBarrier, DoesNotTakeAPercentSignInTheTextAsAConversion) {
  const auto line = lineFor(std::runtime_error("100%s"), Level::Warn, "start");
  EXPECT_EQ(line.text, "<category> Exception from start: 100%s");
}

TEST_F(ExceptionBarrier, LeavesTheExceptionToNobody) {
  EXPECT_NO_THROW(lineFor(std::runtime_error("text"), Level::Warn, "start"));
}

}  // namespace
}  // namespace connectivity
