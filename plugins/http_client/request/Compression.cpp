#include "plugins/http_client/request/Compression.hpp"

#include <cstddef>
#include <string_view>
#include <vector>

#include <Poco/DeflatingStream.h>

#include "orrery/Exception.hpp"

namespace connectivity::plugins {

namespace {

constexpr std::size_t stepBytes = 102400;
constexpr int defaultLevel = -1;  // zlib's

void throwUnlessAtEnd(const std::istream& stream) {
  if (stream.bad()) throw orrery::StreamException("Serious I / O error");
  if (!stream.eof()) throw orrery::StreamException("I/O error");
}

}  // namespace

data_t getCompressedPayload(std::istream& input, const SupportedMediaType& coding) {
  Poco::DeflatingInputStream deflating(input,
                                       coding == SupportedMediaType::gzip
                                           ? Poco::DeflatingStreamBuf::STREAM_GZIP
                                           : Poco::DeflatingStreamBuf::STREAM_ZLIB,
                                       defaultLevel);
  std::vector<char> compressed;
  std::size_t count = 0;
  while (deflating.good()) {
    compressed.resize(count + stepBytes);
    deflating.read(compressed.data() + count, static_cast<std::streamsize>(stepBytes));
    count += static_cast<std::size_t>(deflating.gcount());
  }
  throwUnlessAtEnd(deflating);
  // The deflating stream takes an input that failed for one that ended.
  throwUnlessAtEnd(input);
  return data_t(buffer_t::copyOf({compressed.data(), count}));
}

}  // namespace connectivity::plugins
