// From a connection's bytes to the head of the final response.
#pragma once

#include <string>

#include "plugins/http_client/wire/InputBuffer.hpp"
#include "plugins/http_client/wire/ResponseHead.hpp"

namespace connectivity::plugins {

// So many interim responses in a row are no longer progress.
inline constexpr int maxInterimResponses = 100;

// What is known of an answer while its head is read, also where that fails.
struct HeadProgress {
  bool begun = false;      // a byte of it has come
  bool ambiguous = false;  // an interim response announced a body: what follows cannot be told
};

// Reads the head of the final response into `head` and leaves `input` at the body's first byte.
// Interim responses are read past. `peer` begins the sentences about failures: "The server".
// Errors, beside those of HeadReader and of the connection:
//   Poco::Net::NoMessageException "The server closed the connection without an answer"
//   Poco::Net::MessageException   "The server closed the connection within the response head",
//                                 "The server sent too many interim responses"
void readResponseHead(InputBuffer& input, ResponseHead& head, const std::string& peer,
                      HeadProgress& progress);

}  // namespace connectivity::plugins
