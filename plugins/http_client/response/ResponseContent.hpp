// Reading a stream to its end into memory, under a response's size limit and policy.
//
// Runs on the worker's thread. The buffer is the worker's, reused from response to response: it
// only grows, what lies behind the returned count is nobody's, and nothing of an earlier response
// ever lies before it.
#pragma once

#include <cstddef>
#include <exception>
#include <istream>
#include <string>
#include <utility>
#include <vector>

namespace connectivity::plugins {

// A response over its limit under REJECT. It is answered with status 413.
class ResponseLimitExceeded : public std::exception {
 public:
  explicit ResponseLimitExceeded(std::string message) : _message(std::move(message)) {}
  const char* what() const noexcept override { return _message.c_str(); }

 private:
  std::string _message;
};

// How many bytes are read at a time.
inline constexpr std::size_t responseChunkBytes = 102400;

// Reads `body` to its end and returns how many bytes at the front of `buffer` are the payload.
//
// `maxResponseKB` counts kilobytes of 1000 bytes; negative: no limit. With an empty `policy` there
// is no limit either. A body that reaches the limit (one of exactly that many bytes included) is
//   under REJECT         ResponseLimitExceeded "Response exceeded maxResponseKB, with
//                        maxResponsePolicy set to REJECT"
//   under TRUNCATE_END   cut before its last line feed within the limit (where there is one), and
//                        "[TRUNCATED]" follows
//   under TRUNCATE_START (only where it is longer) reduced to its last maxResponseKB from their
//                        first line feed on, and "[TRUNCATED]" goes before
// What is behind the limit stays in the stream under the first two.
// Where `charset` is exactly "utf-8" no cut leaves a part of a character.
//
// Under TRUNCATE_START the count is an odd one where the read that first passed the limit also
// reached the body's end: it is computed from the bytes that were dropped, or from the length of
// the buffer, and the payload is padded with zero bytes up to it.
//
// Throws orrery::StreamException "Error processing response stream: Serious I/O error" where the
// stream's bad bit is set, "Error processing response stream: I/O error" where it fails without end
// of file, and "Error processing response stream: the response exceeds 4294967295 bytes".
unsigned int readResponseContent(std::istream& body, std::vector<char>& buffer,
                                 const std::string& charset, const long long& maxResponseKB,
                                 const std::string& policy);

// The count as it is handed on. Throws as above where it does not fit.
unsigned int deliveredCount(unsigned long long count);

}  // namespace connectivity::plugins
