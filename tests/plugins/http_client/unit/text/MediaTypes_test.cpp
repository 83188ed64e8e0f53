#include "plugins/http_client/text/MediaTypes.hpp"

#include <string>

#include <gtest/gtest.h>

namespace connectivity::plugins {
namespace {

TEST(MediaTypes, FourCodingsAreKnown) {
  const std::map<std::string, SupportedMediaType> expected = {
      {"empty", SupportedMediaType::empty},
      {"identity", SupportedMediaType::identity},
      {"gzip", SupportedMediaType::gzip},
      {"deflate", SupportedMediaType::deflate}};
  EXPECT_EQ(mediaTypes, expected);
}

TEST(MediaTypes, CodingsHaveTheirNumbers) {
  EXPECT_EQ(static_cast<int>(mediaTypeOf(noContentEncoding)), 0);
  EXPECT_EQ(static_cast<int>(mediaTypeOf("identity")), 1);
  EXPECT_EQ(static_cast<int>(mediaTypeOf("gzip")), 2);
  EXPECT_EQ(static_cast<int>(mediaTypeOf("deflate")), 3);
}

TEST(MediaTypes, EveryOtherNameIsUnsupported) {
  for (const char* name : {"", "br", "GZIP", "Gzip", "gzip ", "x-gzip", "gzip, deflate", "zstd"}) {
    EXPECT_EQ(static_cast<int>(mediaTypeOf(name)), 4) << name;
  }
}

}  // namespace
}  // namespace connectivity::plugins
