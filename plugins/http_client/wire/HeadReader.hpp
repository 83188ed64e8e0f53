// Reads the head of one response from its bytes, in whatever pieces they come (RFC 9112, 2 to 5).
//
// Strict: what two readers could take for two different things is malformed. Lines end with CR LF;
// a lone LF is taken too. The status line is `HTTP/1.` and a digit, one space, three digits from
// 100 to 999, then the end or a space and the reason. A field line is a token, a colon right behind
// it, and a value. A line that begins with a blank or a tab continues the value before it, joined
// by one space. A NUL anywhere, a CR without its LF, a line without a colon and a continuation
// without a field are malformed; other control characters in a value are data.
//
// Pure: it knows bytes, not sockets. Its cost grows with the bytes alone. Belongs to one thread.
#pragma once

#include <cstddef>
#include <string_view>

#include "plugins/http_client/wire/ResponseHead.hpp"

namespace connectivity::plugins {

// A head of more bytes than this, its lines and their ends together, is refused.
inline constexpr std::size_t maxResponseHead = 262144;
// Empty lines that may stand before the status line, their bytes together. No part of the head.
inline constexpr std::size_t maxLeadingBytes = 16;

// One line of a head, or of the chunks' framing, off the front of `bytes`.
struct HeadLine {
  enum class State { Incomplete, Whole, Malformed };
  State state = State::Incomplete;
  std::string_view text;  // without its end
  std::size_t size = 0;   // with its end
};

// `searched` bytes at the front are known to hold no LF. Malformed is a line with a NUL, or with a
// CR that no LF follows.
HeadLine nextHeadLine(std::string_view bytes, std::size_t searched) noexcept;

class HeadReader {
 public:
  // Fills `head`, which is borrowed, and cleared first.
  explicit HeadReader(ResponseHead& head) noexcept : _head(head) { _head.clear(); }

  // Takes whole lines off the front of `bytes` and returns their size. What is left over is to be
  // given again, with more bytes behind it. Throws Poco::Net::MessageException:
  //   "The response is not HTTP"
  //   "Malformed status line in the response: HTTP/1.1 20 OK"
  //   "Malformed header line 3 in the response: no colon"  (or: "no field name", "a control
  //                                                         character", "nothing to continue")
  //   "The response head is too large"
  std::size_t read(std::string_view bytes);
  // The empty line behind the fields has been read.
  bool complete() const noexcept { return _state == State::Complete; }

 private:
  enum class State { Start, Fields, Complete };

  void readLine(const HeadLine& line);
  void readStatusLine(std::string_view line);
  void readField(std::string_view line);

  ResponseHead& _head;
  State _state = State::Start;
  std::size_t _taken = 0;     // bytes of the head so far, or of the empty lines before it
  std::size_t _searched = 0;  // bytes at the front that hold no LF
  unsigned _lines = 0;        // of header fields
};

}  // namespace connectivity::plugins
