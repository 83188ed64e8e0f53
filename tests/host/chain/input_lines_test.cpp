#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "host/chain/InputLines.hpp"
#include "tests/support/TemporaryDirectory.hpp"

namespace host {
namespace {

using test_support::TemporaryDirectory;

std::vector<std::string> linesOf(const std::string& content) {
  const TemporaryDirectory directory;
  InputLines lines(directory.write("in", content));
  std::vector<std::string> texts;
  while (lines.wait()) {
    while (const auto line = lines.next()) {
      texts.emplace_back(line->text);
      EXPECT_EQ(line->number, texts.size());
    }
  }
  return texts;
}

using Texts = std::vector<std::string>;

TEST(InputLines, ReadsEveryLineWithItsNumber) {
  EXPECT_EQ(linesOf("a\nbb\n\nc\n"), (Texts{"a", "bb", "", "c"}));
}

TEST(InputLines, TextAfterTheLastLineFeedIsALine) { EXPECT_EQ(linesOf("a\nb"), (Texts{"a", "b"})); }

TEST(InputLines, AnEmptyInputHasNoLine) { EXPECT_EQ(linesOf(""), Texts{}); }

TEST(InputLines, ReadsLinesLongerThanItsBuffer) {
  const std::string first(200000, 'x');
  const std::string second(70000, 'y');
  EXPECT_EQ(linesOf(first + "\n" + second + "\nz"), (Texts{first, second, "z"}));
}

TEST(InputLines, ReadsManyLinesAcrossItsBuffer) {
  std::string content;
  Texts expected;
  for (int i = 0; i < 50000; ++i) {
    expected.push_back("line " + std::to_string(i));
    content += expected.back() + "\n";
  }
  EXPECT_EQ(linesOf(content), expected);
}

TEST(InputLines, KnowsTheSizeOfAFileAndHowMuchWasRead) {
  const TemporaryDirectory directory;
  InputLines lines(directory.write("in", "12345\n"));
  EXPECT_EQ(lines.size(), 6U);
  EXPECT_EQ(lines.bytesRead(), 0U);
  EXPECT_TRUE(lines.wait());
  EXPECT_EQ(lines.bytesRead(), 6U);
}

TEST(InputLines, AMissingFileIsAnErrorThatNamesIt) {
  const TemporaryDirectory directory;
  try {
    const InputLines lines(directory.file("none"));
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(error.what(),
              "cannot read " + directory.file("none") + ": No such file or directory");
  }
}

class InputPipe : public testing::Test {
 protected:
  InputPipe() : _path(_directory.file("pipe")) {
    EXPECT_EQ(::mkfifo(_path.c_str(), 0600), 0);
    _keepOpen = ::open(_path.c_str(), O_RDWR);
  }
  ~InputPipe() override { ::close(_keepOpen); }
  void put(std::string_view text) const {
    ASSERT_EQ(::write(_keepOpen, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  const TemporaryDirectory _directory;
  const std::string _path;
  int _keepOpen = -1;
};

TEST_F(InputPipe, ALineIsThereAtOnceWhileTheNextIsStillToCome) {
  InputLines lines(_path);
  put("first\nsec");
  ASSERT_TRUE(lines.wait());
  EXPECT_EQ(lines.next()->text, "first");
  EXPECT_FALSE(lines.next());
  put("ond\n");
  ASSERT_TRUE(lines.wait());
  EXPECT_EQ(lines.next()->text, "second");
}

TEST_F(InputPipe, HasNoSize) { EXPECT_FALSE(InputLines(_path).size()); }

TEST_F(InputPipe, StopEndsAWaitForInput) {
  InputLines lines(_path);
  bool more = true;
  std::thread reader([&] { more = lines.wait(); });
  lines.stop();
  reader.join();
  EXPECT_FALSE(more);
}

TEST_F(InputPipe, StopLeavesTheWholeLinesThatWereReadAndNothingElse) {
  InputLines lines(_path);
  put("a\nb\nhalf");
  ASSERT_TRUE(lines.wait());
  lines.stop();
  put(" a line\n");
  std::string taken;
  while (lines.wait()) taken += std::string(lines.next()->text) + ",";
  EXPECT_EQ(taken, "a,b,");
}

TEST_F(InputPipe, ALineThatIsTooLongIsToldAndNotKept) {
  InputLines lines(_path);
  std::thread writer([this] {
    const std::string block(1024 * 1024, 'x');
    for (std::size_t sent = 0; sent <= InputLines::maxLineLength; sent += block.size()) put(block);
    put("\nnext\n");
  });
  ASSERT_TRUE(lines.wait());
  const auto tooLong = lines.next();
  EXPECT_TRUE(tooLong->tooLong);
  EXPECT_TRUE(tooLong->text.empty());
  ASSERT_TRUE(lines.wait());
  const auto next = lines.next();
  EXPECT_FALSE(next->tooLong);
  EXPECT_EQ(next->text, "next");
  EXPECT_EQ(next->number, 2U);
  writer.join();
}

class UnopenedPipe : public testing::Test {
 protected:
  UnopenedPipe() : _path(_directory.file("pipe")) { EXPECT_EQ(::mkfifo(_path.c_str(), 0600), 0); }

  const TemporaryDirectory _directory;
  const std::string _path;
};

TEST_F(UnopenedPipe, StopEndsAWaitForItsFirstWriter) {
  InputLines lines(_path);
  bool more = true;
  std::thread reader([&] { more = lines.wait(); });
  lines.stop();
  reader.join();
  EXPECT_FALSE(more);
}

TEST_F(UnopenedPipe, EndsWhereItsLastWriterClosesIt) {
  InputLines lines(_path);
  std::thread writer([this] {
    const int pipe = ::open(_path.c_str(), O_WRONLY);
    EXPECT_EQ(::write(pipe, "a\n", 2), 2);
    ::close(pipe);
  });
  ASSERT_TRUE(lines.wait());
  EXPECT_EQ(lines.next()->text, "a");
  EXPECT_FALSE(lines.next());
  EXPECT_FALSE(lines.wait());
  writer.join();
}

}  // namespace
}  // namespace host
