// Reading a response's body into memory: decoded as its header says, and held to the request's size
// limit.
//
// Runs on the worker's thread. The buffer is the worker's, reused from response to response; what
// lies behind the returned count is nobody's.
#pragma once

#include <istream>
#include <vector>

#include "plugins/http_client/request/Request.hpp"
#include "plugins/http_client/response/ResponseContent.hpp"
#include "plugins/http_client/text/ReportLine.hpp"
#include "plugins/http_client/wire/ResponseBody.hpp"
#include "plugins/http_client/wire/ResponseHead.hpp"

namespace connectivity::plugins {

struct ReadBody {
  unsigned int size = 0;  // of the bytes at the front of the buffer that are the body
  // The rest of the message is not wanted: it is in a coding that nobody reads.
  bool leftUnread = false;
};

// Reads the body of `response` as its Content-Encoding says, and counts as readResponseContent
// does. A coding that is not supported gives the payload "Unsupported Media Type: " and the
// header's value, reports the same text, and leaves the body unread. A body without a byte is not
// decoded. What is left of the message behind a limit stays unread, and so do more than 4096 bytes
// behind a coded body.
//
// Throws as readResponseContent does, and orrery::StreamException "Error processing response
// stream: I/O error" where the body ended before its announced end.
ReadBody processResponse(const ResponseHead& response, ResponseBody& body,
                         std::vector<char>& buffer, const ResponseLimit& limit,
                         const ReportLine& report);

}  // namespace connectivity::plugins
