// Decoding the body of a response that is compressed as gzip or deflate: in zlib's format, or,
// where that has no header of zlib's, as raw deflate, as some servers send it.
//
// Poco's inflating stream takes content that breaks off before its first decoded byte for empty,
// and stops behind the first member of a gzip content of several (RFC 1952, 2.2); this one does
// neither, and decodes straight into the reader's memory.
#pragma once

#include <array>
#include <cstddef>
#include <istream>
#include <memory>
#include <streambuf>
#include <vector>

#include "plugins/http_client/text/MediaTypes.hpp"

struct z_stream_s;

namespace connectivity::plugins {

// Reads from `source`, which is borrowed, and no further than what is asked for needs: the rest of
// the content may be missing, and not be wanted. Used as a std::istream's buffer, so that corrupt
// content, and a source that fails, set the stream's bad bit. Content that breaks off is an end of
// file; brokeOff() tells it. Bytes behind the content are ignored; some of them may have been read.
class InflatingBuffer final : public std::streambuf {
 public:
  // REQUIRES: `coding` is gzip or deflate.
  InflatingBuffer(std::streambuf& source, SupportedMediaType coding);
  ~InflatingBuffer() override;
  InflatingBuffer(const InflatingBuffer&) = delete;
  InflatingBuffer& operator=(const InflatingBuffer&) = delete;

  // The source came to its end before the content did.
  bool brokeOff() const noexcept { return _brokeOff; }

 protected:
  int_type underflow() override;
  std::streamsize xsgetn(char* into, std::streamsize count) override;

 private:
  static constexpr std::size_t inputBytes = 32768;
  static constexpr std::size_t skippingBytes = 4096;

  // Up to `room` decoded bytes; fewer than `wanted` only at the end.
  std::size_t decode(char* into, std::size_t room, std::size_t wanted);
  bool refill();
  bool beginsNextMember();
  bool chooseFormat();

  std::streambuf& _source;
  const bool _gzip;
  std::unique_ptr<z_stream_s> _zlib;
  std::vector<char> _input;
  std::array<char, skippingBytes> _decoded;  // for reading byte by byte, and skipping
  bool _chosen = false;                      // the format of the content is known
  bool _ended = false;
  bool _brokeOff = false;
};

}  // namespace connectivity::plugins
