#include "plugins/http_client/request/Compression.hpp"

#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>

#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "orrery/Exception.hpp"
#include "tests/support/Coders.hpp"

namespace connectivity::plugins {
namespace {

using test_support::gunzip;
using test_support::unzlib;

std::string compressed(const std::string& text, SupportedMediaType coding) {
  std::istringstream input(text);
  const data_t payload = getCompressedPayload(input, coding);
  return std::string(get<buffer_t>(payload).view());
}

std::string failureOf(std::istream& input) {
  try {
    getCompressedPayload(input, SupportedMediaType::gzip);
  } catch (const orrery::StreamException& failure) {
    return failure.what();
  }
  return "no failure";
}

class BreakingBuffer final : public std::streambuf {
 protected:
  int_type underflow() override { throw std::runtime_error("broken"); }
};

TEST(Compression, GzipAndDeflateInflateToTheInput) {
  for (const std::size_t size : {1U, 32767U, 32768U, 65536U, 102400U, 1000000U}) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * i >> 7U);
    EXPECT_EQ(gunzip(compressed(text, SupportedMediaType::gzip)), text);
    EXPECT_EQ(unzlib(compressed(text, SupportedMediaType::deflate)), text);
  }
}

TEST(Compression, EmptyInputIsAValidEmptyStream) {
  const std::string gzip = compressed("", SupportedMediaType::gzip);
  EXPECT_EQ(gzip.size(), 20U);
  EXPECT_TRUE(gzip.starts_with("\x1F\x8B"));
  EXPECT_EQ(gunzip(gzip), "");
  const std::string zlib = compressed("", SupportedMediaType::deflate);
  EXPECT_EQ(zlib.size(), 8U);
  EXPECT_EQ(unzlib(zlib), "");
}

// A zlib stream tells its level in its second byte.
TEST(Compression, HasTheDefaultLevel) {
  const std::string zlib = compressed(std::string(1000, 'x'), SupportedMediaType::deflate);
  EXPECT_TRUE(zlib.starts_with("\x78\x9C"));
}

TEST(Compression, InputThatTurnsBadIsASeriousError) {
  BreakingBuffer source;
  std::istream input(&source);
  EXPECT_EQ(failureOf(input), "Serious I / O error");
}

TEST(Compression, InputThatStopsBeforeItsEndIsAnError) {
  std::istringstream input("text");
  input.setstate(std::ios::failbit);
  EXPECT_EQ(failureOf(input), "I/O error");
}

}  // namespace
}  // namespace connectivity::plugins
