// The failure of a request that cannot be sent as it was given: whatever is wrong with a message
// ends in this one type.
#pragma once

#include <stdexcept>

namespace connectivity::plugins {

// Thrown before anything of the request has been sent. It is answered with status 400 and this
// text; it is never retried, says nothing about the server, and is no sample of request sizes.
class RefusedRequest : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The request asks for a content coding that there is none of. The session is reset, by definition.
class UnsupportedRequestCoding final : public RefusedRequest {
 public:
  UnsupportedRequestCoding()
      : RefusedRequest("Unsupported Content-Encoding, dropping HTTP request.") {}
};

// The text of a refused payload.
inline constexpr char payloadRefusal[] =
    "HTTPClient payloads must be binary buffers or dictionary having string key and either string "
    "or binary value (did you mean to use the StringCodec to encode a string to a buffer?)";

}  // namespace connectivity::plugins
