// The library as a guest in the host's process: it leaves nothing behind.
#include <dlfcn.h>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/EchoServer.hpp"
#include "tests/support/PluginUnderTest.hpp"

namespace test_support {
namespace {

bool isMapped() {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.ends_with("libHTTPClient.so")) return true;
  }
  return false;
}

TEST(Unloading, UnmapsTheLibraryEachTime) {
  ASSERT_FALSE(isMapped());
  EchoServer server;
  for (int round = 0; round < 5; ++round) {
    {
      PluginUnderTest plugin{Config(server.port()).numClients(2)};
      EXPECT_TRUE(isMapped());
      EXPECT_EQ(plugin.request(Request("GET", "/x")).status(), 200);
    }
    EXPECT_FALSE(isMapped());
  }
}

TEST(Unloading, UnmapsALibraryThatWasLoadedAndNeverUsed) {
  { const PluginLibrary library; }
  EXPECT_FALSE(isMapped());
}

// More rounds than the process has keys for thread-specific data (1024 on Linux).
TEST(Unloading, GivesBackItsThreadKey) {
  for (int round = 0; round < 1100; ++round) {
    const PluginLibrary library;
    ASSERT_EQ(library.apiVersion(), 4U);
  }
}

TEST(Unloading, LeavesASecondInstanceAlone) {
  EchoServer server;
  LogDouble log;
  PluginOptions options;
  options.log = &log;
  PluginUnderTest first{Config(server.port()), options};
  {
    PluginOptions other = options;
    other.chainId = "other";
    PluginUnderTest second{Config(server.port()), other};
    EXPECT_EQ(second.request(Request("GET", "/x")).status(), 200);
  }
  EXPECT_EQ(first.request(Request("GET", "/x")).status(), 200);
}

TEST(Unloading, ExportsNothingOfItsInside) {
  const PluginLibrary library;
  EXPECT_NE(library.symbol("qor_plugin_start_HTTPClient"), nullptr);
  for (const char* inside :
       {"_ZN12connectivity7plugins10HTTPClient5startEv", "_ZTIN12connectivity7plugins10HTTPClientE",
        "_ZN12connectivity7plugins10mediaTypesE"}) {
    EXPECT_EQ(library.symbol(inside), nullptr) << inside;
  }
}

}  // namespace
}  // namespace test_support
