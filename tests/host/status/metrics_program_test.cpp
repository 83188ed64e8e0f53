// /metrics of a run, as Prometheus' own tool judges it.
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/host/status/StatusProgram.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace host_tests {
namespace {

using testing::HasSubstr;

const std::string promtool = "/usr/bin/promtool";

TEST(MetricsOfARun, PassPromtoolWithoutAWarning) {
  if (!std::filesystem::exists(promtool)) GTEST_SKIP() << "prometheus is not installed";
  test_support::ScriptedServer server;
  server.answer("/x", {200, {}, std::string(300, 'y')});
  server.answer("/x", {404, {}, ""});
  StatusProgram run(server.port());
  run.request(700);
  run.request(10);
  const std::string label = "{transport=\"main.jobs\"} ";
  run.getWith("/metrics", "\norrery_request_size_max_in_last_hour_bytes" + label + "700\n");
  const std::string metrics =
      run.getWith("/metrics", "\norrery_errors_towards_host_total" + label + "1\n");
  EXPECT_THAT(metrics, HasSubstr("\norrery_responses_towards_host_total" + label + "1\n"));
  EXPECT_THAT(metrics, HasSubstr("\norrery_up" + label + "1\n"));

  test_support::ChildProcess check({promtool, "check", "metrics"});
  check.write(metrics);
  check.closeInput();
  EXPECT_EQ(check.wait(), 0);
  EXPECT_EQ(check.output(), "");
  EXPECT_EQ(check.errors(), "");
  EXPECT_EQ(run.program().finish(), 0);
}

}  // namespace
}  // namespace host_tests
