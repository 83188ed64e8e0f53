#include "host/messages/Base64.hpp"

#include <string>

#include <gtest/gtest.h>

namespace host {
namespace {

std::string encoded(std::string_view bytes) {
  std::string out;
  appendBase64(bytes, out);
  return out;
}

TEST(Base64, EncodesTheVectorsOfRfc4648) {
  EXPECT_EQ(encoded(""), "");
  EXPECT_EQ(encoded("f"), "Zg==");
  EXPECT_EQ(encoded("fo"), "Zm8=");
  EXPECT_EQ(encoded("foo"), "Zm9v");
  EXPECT_EQ(encoded("foob"), "Zm9vYg==");
  EXPECT_EQ(encoded("fooba"), "Zm9vYmE=");
  EXPECT_EQ(encoded("foobar"), "Zm9vYmFy");
}

TEST(Base64, DecodesWhatItEncodedForEveryByteAndLength) {
  std::string bytes;
  for (int i = 0; i < 600; ++i) {
    const auto decoded = decodeBase64(encoded(bytes));
    ASSERT_TRUE(decoded.has_value());
    ASSERT_EQ(decoded->view(), bytes);
    bytes += static_cast<char>(i * 7);
  }
}

TEST(Base64, RefusesWhatTheEncoderWouldNotWrite) {
  EXPECT_FALSE(decodeBase64("Zg"));
  EXPECT_FALSE(decodeBase64("Zg="));
  EXPECT_FALSE(decodeBase64("Zm9v "));
  EXPECT_FALSE(decodeBase64("Zm9\n"));
  EXPECT_FALSE(decodeBase64("===="));
  EXPECT_FALSE(decodeBase64("Zg==Zg=="));
  EXPECT_FALSE(decodeBase64("Zm-_"));
}

TEST(Base64, RefusesBitsThatBelongToNoByte) {
  EXPECT_FALSE(decodeBase64("Zh=="));
  EXPECT_FALSE(decodeBase64("Zm9="));
}

}  // namespace
}  // namespace host
