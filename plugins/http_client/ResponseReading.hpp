// Reading a response's body into memory: decoded, and held to the request's size limit.
//
// Runs on the worker's thread. The buffer is the worker's, reused from response to response: it
// only grows, and what lies behind the returned count is nobody's.
#pragma once

#include <cstdint>
#include <exception>
#include <istream>
#include <string>
#include <utility>
#include <vector>

#include <Poco/Net/HTTPResponse.h>

#include "plugins/http_client/ReportLine.hpp"

namespace connectivity::plugins {

class ResponseBody;

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
//   under REJECT         drained, then ResponseLimitExceeded "Response exceeded maxResponseKB, with
//                        maxResponsePolicy set to REJECT"
//   under TRUNCATE_END   cut before its last line feed within the limit (where there is one), and
//                        "[TRUNCATED]" follows
//   under TRUNCATE_START (only where it is longer) cut before the first line feed of its last
//                        maxResponseKB, and "[TRUNCATED]" goes before
// Where `charset` is exactly "utf-8" no cut leaves a part of a character.
//
// Throws orrery::StreamException "Error processing response stream: Serious I/O error" where the
// stream's bad bit is set, "Error processing response stream: I/O error" where it fails without end
// of file or holds more than 4,294,967,295 bytes to deliver (then with "(the response is too
// large)" after it).
unsigned int readResponseContent(std::istream& body, std::vector<char>& buffer,
                                 const std::string& charset, const long long& maxResponseKB,
                                 const std::string& policy);

// The character set that decides about the trimming of cut characters: what follows the last
// "charset=" of the lower-cased Content-Type; "utf-8" without the header.
// Throws std::out_of_range "basic_string::substr".
std::string trimmingCharset(const Poco::Net::HTTPResponse& response);

// Reads the body of `response` as its Content-Encoding says, and returns the count of bytes as
// readResponseContent does. A coding that is not supported gives the payload "Unsupported Media
// Type: " and the header's value, reports the same text, and leaves the body unread. What a decoder
// leaves of the message is read past where it is little. A body without a byte is not decoded.
//
// Throws as readResponseContent and trimmingCharset do, and orrery::StreamException "Error
// processing response stream: I/O error" where the body ended before its announced end.
unsigned int readResponse(const Poco::Net::HTTPResponse& response, ResponseBody& body,
                          std::vector<char>& buffer, const long long& maxResponseKB,
                          const std::string& policy, const ReportLine& report);

}  // namespace connectivity::plugins
