// From a request's payload to its body: a form or the payload's bytes, coded, with one framing.
//
// A body has a content length; a request without one (GET without payload, and the methods that
// carry no body) has none at all. Runs once for each request, on its worker's thread.
#pragma once

#include <vector>

#include "plugins/http_client/request/FormBody.hpp"
#include "plugins/http_client/request/Request.hpp"
#include "plugins/http_client/request/RequestBody.hpp"
#include "plugins/http_client/shared/WorkerLog.hpp"
#include "plugins/http_client/text/MediaTypes.hpp"

namespace connectivity::plugins {

class ContentEncoding {
 public:
  // The request and the log are borrowed; the bodies that it makes borrow the request's payload.
  ContentEncoding(request& req, const WorkerLog& log) noexcept : _request(req), _log(log) {}

  // A payload that is a map is a form where its content type is one of the two form types, or where
  // there is form metadata and no content type: then it is multipart if it holds a buffer, else
  // URL-encoded. Under GET the fields go into the query. The methods without a body drop the
  // payload, which is logged at level 3: "Ignoring specified payload for %s request method".
  //
  // Throws UnsupportedRequestCoding (logged at level 3 too), and RefusedRequest:
  //   "HTTPClient forms cannot be sent with Content-Encoding gzip"
  //   "HTTPClient forms cannot be sent as text/plain"  form metadata with another content type
  //   payloadRefusal                                   a map that is no form
  //   and what readFormFields and urlEncodedForm refuse.
  RequestBody generateRequest();

 private:
  RequestBody requestEncoding(SupportedMediaType coding) const;
  RequestBody htmlFormEncoding() const;
  RequestBody multipart(const std::vector<FormField>& fields) const;

  request& _request;
  const WorkerLog& _log;
};

}  // namespace connectivity::plugins
