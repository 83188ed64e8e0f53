// orrery-host demo, with the transport that is built beside it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/host/HostProgram.hpp"

namespace host_tests {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;

TEST(Demo, EveryRequestGetsExactlyOneAnswerTheExpectedOne) {
  HostProgram program({"demo"});
  EXPECT_EQ(program.finish(), 0);
  EXPECT_EQ(program.errors(), "");
  EXPECT_THAT(program.output(), HasSubstr("\n1000 requests, 1000 answered as expected\n"));
  EXPECT_THAT(program.output(), HasSubstr("http.demo.responsesTowardsHost"));
}

TEST(Demo, EveryQueueFlushIsABarrier) {
  HostProgram program({"demo"});
  EXPECT_EQ(program.finish(), 0);
  EXPECT_THAT(program.output(),
              HasSubstr("4 queue flushes, 4 completed behind everything sent before them\n"));
}

TEST(Demo, EndsWithTheTransportOnline) {
  HostProgram program({"demo"});
  EXPECT_EQ(program.finish(), 0);
  EXPECT_THAT(program.output(), ContainsRegex("http\\.demo\\.status +ONLINE\n"));
}

}  // namespace
}  // namespace host_tests
