// The exported functions: what they give back, and that no failure passes them.
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"
#include "tests/support/ServiceDoubles.hpp"

namespace test_support {
namespace {

// The library with doubles around it, for tests that call create themselves.
class EntryPoints : public testing::Test {
 protected:
  void* create(const char* name, const char* chain, const data_t& given) {
    return library.create(name, chain, given.raw(), status.handle(), host.handle());
  }
  // The plug-in is connected to a host that takes nothing.
  void* createAndConnect(const Config& config, void* hostHandle) {
    const data_t given{config.map()};
    void* const plugin = library.create("name", "chain", given.raw(), status.handle(), hostHandle);
    library.setNextTowardsHost(plugin, nullptr, &EntryPoints::takeNothing);
    return plugin;
  }
  static int takeNothing(void*, qor_message_t*, qor_message_t*) { return 0; }

  void expectFailedCreate(const std::string& category, const std::string& text) {
    const auto line = log.find("Exception from create");
    ASSERT_TRUE(line.has_value());
    EXPECT_EQ(line->category, category);
    EXPECT_EQ(line->level, QOR_LOG_ERROR);
    EXPECT_EQ(line->text, "<" + category + "> Exception from create: " + text);
    EXPECT_TRUE(status.items().empty());
  }

  LogDouble log;
  StatusDouble status;
  HostDouble host;
  PluginLibrary library;
  const data_t configuration{Config(1).map()};
};

TEST_F(EntryPoints, ReportTheVersions) {
  EXPECT_EQ(library.apiVersion(), 4U);
  EXPECT_STREQ(library.productVersion(), "10.15.4.1");
}

TEST_F(EntryPoints, MarkTheLibraryAsATransport) {
  EXPECT_EQ(library.checkIsTransport(0xABCDU), 0xABCDU);
}

TEST_F(EntryPoints, DestroyNothingForANullPlugin) { EXPECT_EQ(library.destroy(nullptr), 0); }

TEST_F(EntryPoints, FailForANullPlugin) {
  EXPECT_EQ(library.start(nullptr), 1);
  EXPECT_EQ(library.hostReady(nullptr), 1);
  EXPECT_EQ(library.shutdown(nullptr), 1);
  EXPECT_EQ(library.setNextTowardsHost(nullptr, nullptr, &takeNothing), 1);
  EXPECT_EQ(library.sendBatchTowardsTransport(nullptr, nullptr, nullptr), 1);
}

TEST_F(EntryPoints, RefuseANullPluginName) {
  EXPECT_EQ(create(nullptr, "chain", configuration), nullptr);
  expectFailedCreate("connectivity..chain", "basic_string::_M_construct null not valid");
}

TEST_F(EntryPoints, RefuseANullChainId) {
  EXPECT_EQ(create("name", nullptr, configuration), nullptr);
  expectFailedCreate("connectivity.name.", "basic_string::_M_construct null not valid");
}

TEST_F(EntryPoints, RefuseAConfigurationThatIsNoMap) {
  EXPECT_EQ(create("name", "chain", textValue("no map")), nullptr);
  expectFailedCreate("connectivity.name.chain",
                     "Incorrect type in get (you asked for map but it's actually string)");
}

TEST_F(EntryPoints, RefuseAnEmptyConfiguration) {
  EXPECT_EQ(create("name", "chain", data_t()), nullptr);
  expectFailedCreate("connectivity.name.chain", "Get from empty");
}

TEST_F(EntryPoints, TellWhatIsWrongWithAConfiguration) {
  EXPECT_EQ(create("name", "chain", data_t(Config(1).set("hots", "x").map())), nullptr);
  expectFailedCreate("connectivity.name.chain", "Unknown configuration element hots");
}

TEST_F(EntryPoints, RefuseTooManyWorkersBeforeAnythingIsMade) {
  EXPECT_EQ(create("name", "chain", data_t(Config(1).numClients(1'000'000'000'000).map())),
            nullptr);
  expectFailedCreate("connectivity.name.chain",
                     "HTTPClient configuration numClients must not be more than 4096");
}

TEST_F(EntryPoints, RefuseToCreateWhereAStatusItemIsRefused) {
  status.refuse(".queueSize");
  EXPECT_EQ(create("name", "chain", configuration), nullptr);
  EXPECT_TRUE(
      log.contains("Exception from create: Failed to create status item "
                   "'name.chain.queueSize'"));
  EXPECT_TRUE(status.items().empty());
}

TEST_F(EntryPoints, RefuseACertificateAuthorityFileThatIsNotThere) {
  const data_t missing{
      Config(1).tls().numClients(3).set("tlsCertificateAuthorityFile", "/none.pem").map()};
  EXPECT_EQ(create("name", "chain", missing), nullptr);
  EXPECT_TRUE(
      log.contains("Exception from create: HTTPClient configuration tlsCertificateAuthorityFile: "
                   "cannot use /none.pem: No such file or directory"));
  EXPECT_TRUE(status.items().empty());
}

TEST_F(EntryPoints, NameTheOlderOptionWhereThatNamesAFileThatIsNotThere) {
  const data_t missing{Config(1).tls().set("certificateAuthorityPath", "/none.pem").map()};
  EXPECT_EQ(create("name", "chain", missing), nullptr);
  EXPECT_TRUE(
      log.contains("Exception from create: HTTPClient configuration certificateAuthorityPath: "
                   "cannot use /none.pem: No such file or directory"));
}

TEST_F(EntryPoints, LeaveTheConfigurationWithTheHost) {
  const data_t shared{Config(1).set("proxy/host", "").map()};
  void* const plugin = create("name", "chain", shared);
  ASSERT_NE(plugin, nullptr);
  library.destroy(plugin);
  EXPECT_EQ(connectivity::toText(shared),
            connectivity::toText(data_t(Config(1).set("proxy/host", "").map())));
}

TEST_F(EntryPoints, CreateWorkersWithoutStartingThem) {
  void* const plugin = create("name", "chain", data_t(Config(1).numClients(3).map()));
  ASSERT_NE(plugin, nullptr);
  const auto line = log.find("Created");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->level, QOR_LOG_INFO);
  EXPECT_EQ(line->text, "<connectivity.name.chain> Created 3 Client Session Threads");
  EXPECT_EQ(status.text("name.chain.status"), "STARTING");
  EXPECT_EQ(status.text("name.chain.numClients"), "3");
  library.destroy(plugin);
  EXPECT_TRUE(status.items().empty());
}

TEST_F(EntryPoints, RefuseToStartWithoutAHostSide) {
  void* const plugin = create("name", "chain", configuration);
  EXPECT_EQ(library.start(plugin), 1);
  const auto line = log.find("Exception from start");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->level, QOR_LOG_ERROR);
  EXPECT_EQ(line->text,
            "<connectivity.name.chain> Exception from start: HTTPClient cannot be started before "
            "it has a host side");
  EXPECT_EQ(status.text("name.chain.status"), "STARTING");
  library.destroy(plugin);
}

TEST_F(EntryPoints, RefuseANullBatchFunctionOfTheHost) {
  void* const plugin = create("name", "chain", configuration);
  EXPECT_EQ(library.setNextTowardsHost(plugin, nullptr, nullptr), 1);
  const auto line = log.find("Exception from setNextTowardsHost");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->level, QOR_LOG_ERROR);
  EXPECT_EQ(library.start(plugin), 1);
  library.destroy(plugin);
}

TEST_F(EntryPoints, StartThoughFlushMessagesCannotBeEnabled) {
  host.setEnableResult(5);
  void* const plugin = createAndConnect(Config(1), host.handle());
  EXPECT_EQ(library.start(plugin), 0);
  EXPECT_EQ(host.enableCalls(), 1);
  const auto line = log.find("Could not enable");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->level, QOR_LOG_WARN);
  EXPECT_EQ(line->text,
            "<connectivity.name.chain> Could not enable queue flush notifications, cannot flush "
            "internal queue on flushAllQueue requests An error occurred while enabling queue flush "
            "messages");
  EXPECT_EQ(status.text("name.chain.status"), "ONLINE");
  library.destroy(plugin);
}

TEST_F(EntryPoints, DoNothingWhenTheHostIsReady) {
  void* const plugin = createAndConnect(Config(1), host.handle());
  EXPECT_EQ(library.hostReady(plugin), 0);
  EXPECT_EQ(library.start(plugin), 0);
  EXPECT_EQ(library.hostReady(plugin), 0);
  EXPECT_EQ(status.text("name.chain.status"), "ONLINE");
  library.destroy(plugin);
}

TEST_F(EntryPoints, StartOnlyOnceHoweverOftenTheyAreAsked) {
  void* const plugin = createAndConnect(Config(1).numClients(2), host.handle());
  EXPECT_EQ(library.start(plugin), 0);
  EXPECT_EQ(library.start(plugin), 0);
  EXPECT_EQ(library.shutdown(plugin), 0);
  EXPECT_EQ(library.start(plugin), 1);
  EXPECT_TRUE(log.contains("Exception from start: HTTPClient cannot be started after shutdown"));
  library.destroy(plugin);
}

// A host written in C++ whose functions throw, which they must not.
TEST_F(EntryPoints, KeepAnExceptionOfTheHostsInside) {
  qor_host_services_t services{};
  services.enable_queue_flush_messages = [](void*) -> int { throw std::runtime_error("boom"); };
  void* const plugin = createAndConnect(Config(1), &services);
  EXPECT_EQ(library.start(plugin), 1);
  EXPECT_TRUE(log.contains("Exception from start: boom"));
  library.destroy(plugin);
}

TEST_F(EntryPoints, KeepWhatIsNoExceptionInside) {
  qor_host_services_t services{};
  services.enable_queue_flush_messages = [](void*) -> int { throw 42; };
  void* const plugin = createAndConnect(Config(1), &services);
  EXPECT_EQ(library.start(plugin), 1);
  EXPECT_TRUE(log.contains("Unknown exception from start"));
  library.destroy(plugin);
}

TEST_F(EntryPoints, SendLaterAnswersToTheHostSideThatWasSetLast) {
  ScriptedServer server;
  PluginUnderTest plugin{Config(server.port())};
  plugin.request(Request("GET", "/x"));
  Event arrived("the answer at the second host side");
  const auto count = [](void* handle, qor_message_t*, qor_message_t*) {
    static_cast<Event*>(handle)->set();
    return 0;
  };
  EXPECT_EQ(plugin.library().setNextTowardsHost(plugin.instance(), &arrived, count), 0);
  plugin.send(Request("GET", "/x"));
  arrived.wait();
  EXPECT_EQ(plugin.shutdown(), 0);
  EXPECT_EQ(plugin.answerCount(), 1U);
}

}  // namespace
}  // namespace test_support
