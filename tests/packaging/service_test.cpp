// The systemd unit, as systemd's own tools see it.
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/packaging/HelpOptions.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/TemporaryDirectory.hpp"

namespace packaging_tests {
namespace {

using testing::HasSubstr;

const std::string unitFile = PROJECT_FOLDER "/packaging/systemd/orrery-host@.service";

class Service : public testing::Test {
 protected:
  void SetUp() override {
    if (!isInstalled("systemd-analyze")) GTEST_SKIP() << "systemd is not installed";
  }

  // The unit with the program that was built, in place of the installed one.
  static std::string withBuiltProgram() {
    std::string unit = test_support::readFile(unitFile);
    const std::string program = "ExecStart=orrery-host ";
    const auto place = unit.find(program);
    EXPECT_NE(place, std::string::npos);
    return unit.replace(place, program.size(), "ExecStart=" HOST_PROGRAM " ");
  }
};

TEST_F(Service, HasNothingThatSystemdComplainsOf) {
  const test_support::TemporaryDirectory directory;
  const std::string unit = directory.write("orrery-host@orders.service", withBuiltProgram());
  test_support::ChildProcess verify({"/usr/bin/systemd-analyze", "verify", "--man=no", unit});
  verify.closeInput();
  EXPECT_EQ(verify.wait(), 0);
  EXPECT_EQ(verify.output() + verify.errors(), "");
}

TEST_F(Service, IsExposedByLessThanThreeOfTen) {
  test_support::ChildProcess security({"/usr/bin/systemd-analyze", "security", "--offline=true",
                                       "--threshold=30", "--no-pager", unitFile});
  security.closeInput();
  EXPECT_EQ(security.wait(), 0) << security.output();
  EXPECT_THAT(security.output(), HasSubstr("Overall exposure level"));
}

}  // namespace
}  // namespace packaging_tests
