#include "plugins/http_client/response/Inflating.hpp"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <zlib.h>

#include "orrery/Exception.hpp"

namespace connectivity::plugins {

namespace {

constexpr int gzipWindow = MAX_WBITS + 16;  // zlib's way to ask for gzip
constexpr unsigned char gzipMagic[] = {0x1F, 0x8B};

}  // namespace

InflatingBuffer::InflatingBuffer(std::streambuf& source, SupportedMediaType coding)
    : _source(source),
      _gzip(coding == SupportedMediaType::gzip),
      _zlib(std::make_unique<z_stream_s>()),
      _input(inputBytes),
      _chosen(_gzip) {
  if (inflateInit2(_zlib.get(), _gzip ? gzipWindow : MAX_WBITS) != Z_OK) throw std::bad_alloc();
}

InflatingBuffer::~InflatingBuffer() { inflateEnd(_zlib.get()); }

// Takes what has come, and waits for more only where there is none.
bool InflatingBuffer::refill() {
  if (_source.sgetc() == traits_type::eof()) return false;
  const auto room = static_cast<std::streamsize>(_input.size());
  const std::streamsize held = std::max<std::streamsize>(_source.in_avail(), 1);
  const std::streamsize got = _source.sgetn(_input.data(), std::min(held, room));
  _zlib->next_in = reinterpret_cast<Bytef*>(_input.data());
  _zlib->avail_in = static_cast<uInt>(got);
  return got > 0;
}

// Behind the end of a gzip member: another one, or bytes that are no part of the content?
bool InflatingBuffer::beginsNextMember() {
  if (_zlib->avail_in == 0 && !refill()) return false;
  const std::size_t compared = std::min<std::size_t>(_zlib->avail_in, sizeof gzipMagic);
  return std::memcmp(_zlib->next_in, gzipMagic, compared) == 0;
}

// By the first two bytes (RFC 1950, 2.2): what is no header of zlib's begins raw deflate. False
// where the content broke off before.
bool InflatingBuffer::chooseFormat() {
  constexpr std::streamsize headerBytes = 2;
  const std::streamsize got = _source.sgetn(_input.data(), headerBytes);
  const auto first = static_cast<unsigned char>(_input[0]);
  const auto second = static_cast<unsigned char>(_input[1]);
  constexpr unsigned deflateMethod = 8;
  const bool zlib = (first & 0xFU) == deflateMethod && (first * 256U + second) % 31U == 0;
  if (got == headerBytes && !zlib) inflateReset2(_zlib.get(), -MAX_WBITS);
  _zlib->next_in = reinterpret_cast<Bytef*>(_input.data());
  _zlib->avail_in = static_cast<uInt>(got);
  _chosen = true;
  return got > 0;
}

std::size_t InflatingBuffer::decode(char* into, std::size_t room, std::size_t wanted) {
  room = std::min<std::size_t>(room, std::numeric_limits<uInt>::max());
  wanted = std::min(wanted, room);
  _zlib->next_out = reinterpret_cast<Bytef*>(into);
  _zlib->avail_out = static_cast<uInt>(room);
  while (room - _zlib->avail_out < wanted && !_ended) {
    if (_zlib->avail_in == 0 && !(_chosen ? refill() : chooseFormat())) {
      _ended = _brokeOff = true;
      break;
    }
    const int result = inflate(_zlib.get(), Z_NO_FLUSH);
    if (result == Z_STREAM_END) {
      _ended = !_gzip || !beginsNextMember();
      if (!_ended) inflateReset(_zlib.get());
    } else if (result != Z_OK) {
      throw orrery::StreamException(zError(result));
    }
  }
  return room - _zlib->avail_out;
}

InflatingBuffer::int_type InflatingBuffer::underflow() {
  const std::size_t count = decode(_decoded.data(), _decoded.size(), 1);
  setg(_decoded.data(), _decoded.data(), _decoded.data() + count);
  return count == 0 ? traits_type::eof() : traits_type::to_int_type(*gptr());
}

std::streamsize InflatingBuffer::xsgetn(char* into, std::streamsize count) {
  const std::streamsize held = std::min<std::streamsize>(count, egptr() - gptr());
  std::copy_n(gptr(), held, into);
  gbump(static_cast<int>(held));
  const auto wanted = static_cast<std::size_t>(count - held);
  return held + static_cast<std::streamsize>(decode(into + held, wanted, wanted));
}

}  // namespace connectivity::plugins
