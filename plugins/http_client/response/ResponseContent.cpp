#include "plugins/http_client/response/ResponseContent.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string_view>

#include "orrery/Exception.hpp"
#include "plugins/http_client/config/ConfiguredOptions.hpp"

namespace connectivity::plugins {

namespace {

using std::size_t;
using std::uint64_t;

constexpr std::string_view truncationMarker = "[TRUNCATED]";

bool isContinuation(char c) noexcept { return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U; }
bool isLead(char c) noexcept { return static_cast<unsigned char>(c) >= 0xC0U; }

[[noreturn]] void throwTooLarge() {
  throw orrery::StreamException(
      "Error processing response stream: the response exceeds 4294967295 bytes");
}

// The limit in bytes; 0 also where there is none.
uint64_t bytesOf(long long kilobytes) noexcept {
  return kilobytes <= 0 ? 0 : static_cast<uint64_t>(limitBytes(kilobytes));
}

// One body's way into the buffer. The buffer may be longer than what is described as held here: it
// keeps its length from response to response, so that no response pays for filling it anew.
class ContentReader {
 public:
  ContentReader(std::istream& body, std::vector<char>& buffer, bool utf8, long long maxResponseKB,
                const std::string& policy)
      : _body(body),
        _buffer(buffer),
        _utf8(utf8),
        _limit(bytesOf(maxResponseKB)),
        _rejects(policy == "REJECT"),
        _keepsTail(maxResponseKB >= 0 && policy == "TRUNCATE_START"),
        _capped(maxResponseKB >= 0 && !policy.empty() && !_keepsTail),
        _chunk(_capped && _limit < responseChunkBytes ? static_cast<size_t>(_limit)
                                                      : responseChunkBytes) {}

  unsigned int read() {
    while (_body.good() && !_cutAtLimit) {
      readChunk();
      if (_capped) {
        stayWithinLimit();
      } else if (_keepsTail && _count > _limit) {
        keepTail();
      }
    }
    checkState();
    return deliveredCount(_count);
  }

 private:
  char* at(uint64_t offset) noexcept { return _buffer.data() + static_cast<size_t>(offset); }

  void makeRoom(uint64_t size) {
    if (size > _buffer.max_size()) throwTooLarge();
    if (size > _buffer.size()) _buffer.resize(static_cast<size_t>(size));
  }

  uint64_t readAt(uint64_t offset, size_t size) {
    makeRoom(offset + size);
    _body.read(at(offset), static_cast<std::streamsize>(size));
    return static_cast<uint64_t>(_body.gcount());
  }

  void readChunk() {
    const uint64_t got = readAt(_count, _chunk);
    _held = _count + _chunk;
    _count += got;
    if (!_keepsTail || _count <= _limit) deliveredCount(_count);
  }

  // REJECT and TRUNCATE_END: no byte beyond the limit is ever read into memory.
  void stayWithinLimit() {
    if (_count < _limit && _limit < _count + _chunk) _chunk = static_cast<size_t>(_limit - _count);
    // An empty body is within a limit of zero.
    if (_limit == 0 && _body.good()) _body.peek();
    // A body of exactly the limit counts as over it: its end has not been seen yet.
    if (_count != _limit || !_body.good()) return;
    if (_rejects) {
      throw ResponseLimitExceeded(
          "Response exceeded maxResponseKB, with maxResponsePolicy set to REJECT");
    }
    cutEnd();
    _cutAtLimit = true;
  }

  void cutEnd() {
    const std::string_view held(_buffer.data(), static_cast<size_t>(_count));
    if (!held.empty() && held.back() != '\n') {
      const size_t lineFeed = held.rfind('\n');
      if (lineFeed != std::string_view::npos) _count = lineFeed;
    }
    // The last character of several bytes goes even where it is complete.
    if (_utf8) {
      while (_count > 0 && isContinuation(*at(_count - 1))) --_count;
      if (_count > 0 && isLead(*at(_count - 1))) --_count;
    }
    makeRoom(_count + truncationMarker.size());
    std::memcpy(at(_count), truncationMarker.data(), truncationMarker.size());
    _count += truncationMarker.size();
  }

  // TRUNCATE_START: the limit has been passed for the first time.
  void keepTail() {
    const uint64_t surplus = _count - _limit;
    std::memmove(at(0), at(surplus), static_cast<size_t>(_limit));
    const bool goesOn = _body.good() && _body.peek() != std::istream::traits_type::eof();
    if (goesOn) {
      keepLastOfTheRest();
    } else {
      _held -= surplus;
      std::memset(at(_limit), 0, static_cast<size_t>(_held - _limit));
      // Deliberately the number of bytes that were dropped, not of those that are kept: the
      // delivered count, and with it the zero bytes that pad the payload, is defined by it.
      _count = surplus;
    }
    if (_body.eof()) cutStart(goesOn);
  }

  // The last bytes of a long body, in a ring of the limit and one chunk behind it: no byte is moved
  // more than twice, however long the body is.
  void keepLastOfTheRest() {
    const uint64_t ring = _limit + responseChunkBytes;
    uint64_t end = _limit;
    bool wrapped = false;
    while (_body.good()) {
      end += readAt(end, static_cast<size_t>(std::min<uint64_t>(responseChunkBytes, ring - end)));
      if (end == ring) {
        end = 0;
        wrapped = true;
      }
    }
    if (wrapped) {
      std::rotate(at(0), at(end), at(ring));
      end = ring;
    }
    std::memmove(at(0), at(end - _limit), static_cast<size_t>(_limit));
    _held = _limit;
    _count = _limit;
  }

  // Leaves a tail that begins at a line feed, or at least at a character, and marks it. `whole`
  // says that the tail is all that is held; else the odd count of keepTail() goes on.
  void cutStart(bool whole) {
    const std::string_view held(_buffer.data(), static_cast<size_t>(_held));
    const size_t lineFeed = held.find('\n');
    uint64_t from = 0;
    if (lineFeed != std::string_view::npos && lineFeed + 1 != held.size()) {
      from = lineFeed;
      // Deliberately one byte short, where the count is an odd one anyway.
      _count = _held - lineFeed - (whole ? 0 : 1);
    }
    while (_utf8 && from < _held && isContinuation(*at(from))) {
      ++from;
      _count = whole ? _count - 1 : _count + 1;
    }
    insertMarker(from);
  }

  void insertMarker(uint64_t from) {
    const uint64_t kept = _held - from;
    const uint64_t length = std::max(kept, _count);
    makeRoom(length + truncationMarker.size());
    std::memmove(at(truncationMarker.size()), at(from), static_cast<size_t>(kept));
    std::memcpy(at(0), truncationMarker.data(), truncationMarker.size());
    std::memset(at(truncationMarker.size() + kept), 0, static_cast<size_t>(length - kept));
    _count += truncationMarker.size();
  }

  // A cut at the limit counts whatever is left: the session reads past it.
  void checkState() const {
    if (_body.eof() || _cutAtLimit) return;
    throw orrery::StreamException(_body.bad()
                                      ? "Error processing response stream: Serious I/O error"
                                      : "Error processing response stream: I/O error");
  }

  std::istream& _body;
  std::vector<char>& _buffer;
  const bool _utf8;
  const uint64_t _limit;  // bytes; meaningful under _capped and _keepsTail
  const bool _rejects;
  const bool _keepsTail;
  const bool _capped;
  size_t _chunk;
  uint64_t _count = 0;  // of the bytes at the front that would be delivered now
  uint64_t _held = 0;   // of the bytes at the front that belong to this response, zeros included
  bool _cutAtLimit = false;
};

}  // namespace

unsigned int deliveredCount(unsigned long long count) {
  static_assert(std::numeric_limits<unsigned int>::max() == 4294967295U, "the text names it");
  if (count > std::numeric_limits<unsigned int>::max()) throwTooLarge();
  return static_cast<unsigned int>(count);
}

unsigned int readResponseContent(std::istream& body, std::vector<char>& buffer,
                                 const std::string& charset, const long long& maxResponseKB,
                                 const std::string& policy) {
  return ContentReader(body, buffer, charset == "utf-8", maxResponseKB, policy).read();
}

}  // namespace connectivity::plugins
