// The version that is looked up at each build, in repositories of the test's own.
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/packaging/HelpOptions.hpp"
#include "tests/support/TemporaryDirectory.hpp"

namespace packaging_tests {
namespace {

using testing::HasSubstr;

class CommitVersion : public testing::Test {
 protected:
  CommitVersion() { _directory.write("source/file", "one"); }

  std::string git(std::vector<std::string> arguments) const {
    std::vector<std::string> command{"/usr/bin/git",        "-C", _directory.file("source"),   "-c",
                                     "user.name=test",      "-c", "user.email=test@localhost", "-c",
                                     "commit.gpgsign=false"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return outputOf(command);
  }

  void commit() const {
    git({"add", "file"});
    git({"commit", "--quiet", "--message", "Change"});
  }

  std::string shortCommit() const {
    std::string text = git({"rev-parse", "--short=7", "HEAD"});
    text.pop_back();
    return text;
  }

  void write(const std::string& content) const { _directory.write("source/file", content); }

  // The text that the generated source gives.
  std::string version() const {
    const std::string output = _directory.file("Version.cpp");
    outputOf({CMAKE_PROGRAM, "-DSOURCE=" + _directory.file("source"), "-DVERSION=1.2.3",
              "-DOUTPUT=" + output, "-P", PROJECT_FOLDER "/cmake/CommitVersion.cmake"});
    const std::string text = test_support::readFile(output);
    const auto begin = text.find("return \"");
    EXPECT_NE(begin, std::string::npos);
    return text.substr(begin + 8, text.find("\";", begin) - begin - 8);
  }

  std::filesystem::file_time_type writtenAt() const {
    return std::filesystem::last_write_time(_directory.file("Version.cpp"));
  }

 private:
  const test_support::TemporaryDirectory _directory;
};

TEST_F(CommitVersion, IsTheVersionAloneWithoutARepository) { EXPECT_EQ(version(), "1.2.3"); }

TEST_F(CommitVersion, IsTheVersionAloneInARepositoryWithoutACommit) {
  git({"init", "--quiet"});
  EXPECT_EQ(version(), "1.2.3");
}

TEST_F(CommitVersion, NamesTheCommitAndWhetherFilesDifferFromIt) {
  git({"init", "--quiet"});
  commit();
  EXPECT_EQ(version(), "1.2.3 (" + shortCommit() + ")");
  write("two");
  EXPECT_EQ(version(), "1.2.3 (" + shortCommit() + "-dirty)");
}

TEST_F(CommitVersion, FollowsANewCommit) {
  git({"init", "--quiet"});
  commit();
  const std::string before = version();
  write("two");
  commit();
  EXPECT_EQ(version(), "1.2.3 (" + shortCommit() + ")");
  EXPECT_NE(version(), before);
}

TEST_F(CommitVersion, IgnoresTags) {
  git({"init", "--quiet"});
  commit();
  git({"tag", "--annotate", "--message", "tag", "v9"});
  EXPECT_EQ(version(), "1.2.3 (" + shortCommit() + ")");
}

TEST_F(CommitVersion, LeavesAFileAloneThatWouldNotChange) {
  version();
  const auto before = writtenAt();
  version();
  EXPECT_EQ(writtenAt(), before);
}

TEST(Version, IsTheProjects) {
  EXPECT_THAT(outputOf({HOST_PROGRAM, "--version"}),
              HasSubstr("orrery-host " PROJECT_VERSION_TEXT));
}

}  // namespace
}  // namespace packaging_tests
