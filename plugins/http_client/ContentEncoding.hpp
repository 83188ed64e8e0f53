// The body of a request: a form or the payload's bytes, coded and framed, and sent.
//
// One object for each exchange, on the worker's thread; it borrows the worker. A body has exactly
// one framing, a content length; a request without one (GET without payload, and the methods that
// carry no body) sends no framing at all.
#pragma once

#include <cstdint>
#include <istream>
#include <ostream>
#include <string_view>

#include <Poco/Net/HTTPRequest.h>

#include "connectivity/data_t.hpp"
#include "plugins/http_client/ClientSessionThread.hpp"
#include "plugins/http_client/FormBody.hpp"
#include "plugins/http_client/MediaTypes.hpp"
#include "plugins/http_client/ReportLine.hpp"

namespace connectivity::plugins {

class HTTPClient::ClientSessionThread::ContentEncoding {
 public:
  explicit ContentEncoding(ClientSessionThread& owner) noexcept : _owner(owner) {}

  // Completes the header of `httpRequest` (createRequest), sends it on the worker's session, and
  // writes the body. The response can then be received.
  //
  // May be called again for the same request with a fresh `httpRequest`: nothing of the payload is
  // used up.
  //
  // Throws RefusedRequest, with nothing sent, for
  //   a content coding that is not supported ("Unsupported Content-Encoding, dropping HTTP
  //   request.", which is logged too)
  //   a form with a coding ("HTTPClient forms cannot be sent with Content-Encoding gzip")
  //   a form with another content type ("HTTPClient forms cannot be sent as text/plain")
  //   a payload that is no form (payloadRefusal), and what FormBody refuses
  // and what the session throws where the request cannot be written.
  void generateRequest(request& req, Poco::Net::HTTPRequest& httpRequest);

 private:
  void requestEncoding(request& req, Poco::Net::HTTPRequest& httpRequest,
                       SupportedMediaType coding);
  void htmlFormEncoding(request& req, Poco::Net::HTTPRequest& httpRequest,
                        SupportedMediaType coding);
  void sendForm(request& req, Poco::Net::HTTPRequest& httpRequest, const FormBody& form);
  void sendFormInQuery(request& req, Poco::Net::HTTPRequest& httpRequest);
  void sendBytes(request& req, Poco::Net::HTTPRequest& httpRequest, std::string_view bytes);
  void sendWithoutBody(request& req, Poco::Net::HTTPRequest& httpRequest);
  // Sets the framing, lets the worker complete the header, and sends it.
  std::ostream& sendHeader(request& req, Poco::Net::HTTPRequest& httpRequest, std::uint64_t size);
  ReportLine reporter() const;

  ClientSessionThread& _owner;
};

// The whole of `input`, compressed: gzip, or zlib's format for every other coding, at zlib's
// default level; a new buffer. Throws orrery::StreamException "Serious I / O error" where a stream
// turns bad, "I/O error" where one stops before its end.
data_t getCompressedPayload(std::istream& input, const SupportedMediaType& coding);

}  // namespace connectivity::plugins
