// The head of a response: the status line and the header fields.
#pragma once

#include <cstddef>
#include <cstdint>

#include <Poco/Net/HTTPResponse.h>

#include "plugins/http_client/wire/InputBuffer.hpp"
#include "plugins/http_client/wire/ResponseBody.hpp"

namespace connectivity::plugins {

// A head of more bytes than this is refused.
constexpr std::size_t maxResponseHead = 262144;

// Reads the head of the final response and leaves `input` at the body's first byte. Interim
// responses (1xx, except 101, which ends HTTP on the connection) are read past. Throws
// Poco::Net::NoMessageException where the peer closed before the first byte,
// Poco::Net::MessageException with a text for anything that is not a response head, and what the
// connection throws.
void readResponseHead(InputBuffer& input, Poco::Net::HTTPResponse& response);

// How the body of `response` is framed; `length` is its length under Framing::Length.
struct BodyFraming {
  Framing framing = Framing::None;
  std::int64_t length = 0;
};
// Throws Poco::Net::MessageException for a malformed or contradictory Content-Length, or a
// Transfer-Encoding other than chunked.
BodyFraming bodyFraming(const Poco::Net::HTTPResponse& response, bool answersHead);

// Whether the peer lets the connection serve another request after `response`.
bool keepsConnection(const Poco::Net::HTTPResponse& response, const BodyFraming& body);

}  // namespace connectivity::plugins
