// What a response's head says of the message and the connection: how the body's end is found, and
// whether another request may follow (RFC 9112, 6 and 9.3).
//
// Pure functions; any thread may call them.
#pragma once

#include <cstdint>

#include "plugins/http_client/wire/ResponseHead.hpp"

namespace connectivity::plugins {

// How a body's end is found.
enum class Framing { None, Length, Chunked, UntilClose };

struct BodyFraming {
  Framing framing = Framing::None;
  std::int64_t length = 0;  // under Framing::Length
};

// Whether this is an interim response: every 1xx but 101, which ends HTTP on the connection.
inline bool isInterim(const ResponseHead& head) noexcept {
  constexpr int switchingProtocols = 101;
  return head.status() < 200 && head.status() != switchingProtocols;
}

// `answersHead`: the request was a HEAD, whose answer has no body whatever it announces. Nor has a
// 1xx, a 204 or a 304. A chunked coding wins over a length. Throws Poco::Net::MessageException
//   "Malformed Content-Length in the response: 5x"
//   "Contradictory Content-Length in the response: 5, 6"
//   "Unsupported Transfer-Encoding in the response: gzip, chunked"
BodyFraming bodyFraming(const ResponseHead& head, bool answersHead);

// Whether the head announces a body where there is none by its status: a 204 or an interim response
// with a length above 0 or a transfer coding. What follows on the connection cannot be told then.
bool announcesForbiddenBody(const ResponseHead& head) noexcept;

// Whether the peer lets the connection serve another request after this response.
bool keepsConnection(const ResponseHead& head, const BodyFraming& body);

}  // namespace connectivity::plugins
