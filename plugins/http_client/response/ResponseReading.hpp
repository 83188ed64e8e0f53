// Reading a response's body into memory: decoded as its header says, and held to the request's size
// limit.
//
// Runs on the worker's thread. The buffer is the worker's, reused from response to response; what
// lies behind the returned count is nobody's.
#pragma once

#include <string>
#include <vector>

#include <Poco/Net/HTTPResponse.h>

#include "plugins/http_client/response/ResponseContent.hpp"
#include "plugins/http_client/text/ReportLine.hpp"

namespace connectivity::plugins {

class ResponseBody;

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
