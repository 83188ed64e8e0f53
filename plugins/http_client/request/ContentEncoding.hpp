// The body of a request: a form or the payload's bytes, coded and framed, and sent.
//
// One object for each exchange, on the worker's thread; it borrows the worker. A body has exactly
// one framing, a content length; a request without one (GET without payload, and the methods that
// carry no body) has none at all.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include <Poco/Net/HTTPRequest.h>

#include "plugins/http_client/request/FormBody.hpp"
#include "plugins/http_client/text/MediaTypes.hpp"
#include "plugins/http_client/worker/ClientSessionThread.hpp"

namespace connectivity::plugins {

class HTTPClient::ClientSessionThread::ContentEncoding {
 public:
  explicit ContentEncoding(ClientSessionThread& owner) noexcept : _owner(owner) {}

  // Completes the header of `httpRequest` (createRequest), sends it on the worker's session, and
  // writes the body. The response can then be received. May be called again for the same request
  // with a fresh `httpRequest`: nothing that is sent is used up, and no line is logged twice.
  //
  // A payload that is a map is a form where its content type is one of the two form types, or where
  // there is form metadata and no content type: then it is multipart if it holds a buffer, else
  // URL-encoded. Under GET the fields go into the query. The methods without a body drop the
  // payload, which is logged at level 3: "Ignoring specified payload for %s request method".
  //
  // Throws RefusedRequest, with nothing sent:
  //   "Unsupported Content-Encoding, dropping HTTP request." (logged at level 3 too)
  //   "HTTPClient forms cannot be sent with Content-Encoding gzip"
  //   "HTTPClient forms cannot be sent as text/plain"  form metadata with another content type
  //   payloadRefusal                                   a map that is no form
  //   and what readFormFields and urlEncodedForm refuse
  // and what the session throws where the request cannot be written.
  void generateRequest(request& req, Poco::Net::HTTPRequest& httpRequest);

 private:
  void requestEncoding(request& req, Poco::Net::HTTPRequest& httpRequest,
                       SupportedMediaType coding);
  void htmlFormEncoding(request& req, Poco::Net::HTTPRequest& httpRequest);
  void sendFormInQuery(request& req, Poco::Net::HTTPRequest& httpRequest,
                       const std::vector<FormField>& fields);
  void sendMultipart(request& req, Poco::Net::HTTPRequest& httpRequest,
                     const std::vector<FormField>& fields);
  void sendBytes(request& req, Poco::Net::HTTPRequest& httpRequest, std::string_view bytes);
  // Completes the header and sends it, framed for `size` bytes, or without any framing.
  std::ostream& sendHeader(request& req, Poco::Net::HTTPRequest& httpRequest, std::uint64_t size);
  void sendWithoutBody(request& req, Poco::Net::HTTPRequest& httpRequest);

  ClientSessionThread& _owner;
};

}  // namespace connectivity::plugins
