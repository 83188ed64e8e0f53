// A worker that cannot be made, after others were: nothing of the transport is left. That the other
// workers are freed is for the address sanitizer to find.
//
// This program has a log function of its own, which throws at the line that a chosen worker writes
// while it is made: a host must not do that, but it is what reaches a constructor in its midst.
#include <array>
#include <cstdarg>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Messages.hpp"
#include "tests/support/ServiceDoubles.hpp"

namespace {

std::vector<std::string> lines;
std::string_view failingPrefix;

}  // namespace

extern "C" {

void* qor_create_plugin_with_params_HTTPClient(const char* pluginName, const char* chainId,
                                               qor_data_t configuration, void* statusHandle,
                                               void* hostHandle);
int qor_destroy_plugin_HTTPClient(void* plugin);

void qor_log_at(const char*, int, const char* format, ...) {
  std::array<char, 500> text{};
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  lines.emplace_back(text.data());
  if (!failingPrefix.empty() && lines.back().starts_with(failingPrefix)) {
    throw std::runtime_error("boom");
  }
}

}  // extern "C"

namespace test_support {
namespace {

class WorkerThatFails : public testing::Test {
 protected:
  WorkerThatFails() { lines.clear(); }
  ~WorkerThatFails() override { failingPrefix = {}; }

  void* create() {
    return qor_create_plugin_with_params_HTTPClient("name", "chain", configuration.raw(),
                                                    status.handle(), host.handle());
  }

  StatusDouble status;
  HostDouble host;
  const data_t configuration{Config(1).numClients(4).map()};
};

TEST_F(WorkerThatFails, FailsTheCreationAndLeavesNothingBehind) {
  failingPrefix = "<connectivity.name.chain> {2} Connecting to ";
  EXPECT_EQ(create(), nullptr);
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "<connectivity.name.chain> {0} Connecting to http://127.0.0.1:1",
                       "<connectivity.name.chain> {1} Connecting to http://127.0.0.1:1",
                       "<connectivity.name.chain> {2} Connecting to http://127.0.0.1:1",
                       "<connectivity.name.chain> Exception from create: boom"}));
  EXPECT_TRUE(status.items().empty());
}

TEST_F(WorkerThatFails, LeavesTheNextCreationAlone) {
  failingPrefix = "<connectivity.name.chain> {3} ";
  EXPECT_EQ(create(), nullptr);
  failingPrefix = {};
  void* const plugin = create();
  ASSERT_NE(plugin, nullptr);
  EXPECT_EQ(lines.back(), "<connectivity.name.chain> Created 4 Client Session Threads");
  EXPECT_EQ(qor_destroy_plugin_HTTPClient(plugin), 0);
  EXPECT_TRUE(status.items().empty());
}

}  // namespace
}  // namespace test_support
