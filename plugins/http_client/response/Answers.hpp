// From a finished exchange, or a failure, to the one message that goes towards the host.
//
// Belongs to one worker and its thread; what is given is borrowed. Nothing is delivered here.
#pragma once

#include <optional>
#include <string>

#include "connectivity/data_t.hpp"
#include "plugins/http_client/config/DataTConstants.hpp"
#include "plugins/http_client/request/Request.hpp"
#include "plugins/http_client/response/Failures.hpp"
#include "plugins/http_client/shared/Cookies.hpp"
#include "plugins/http_client/shared/WorkerLog.hpp"
#include "plugins/http_client/wire/ResponseHead.hpp"

namespace connectivity::plugins {

// What the host gets, and what its delivery is counted with.
struct Answer {
  Message message;
  double startTime = 0;                      // seconds on the host's monotonic clock
  int status = 0;                            // HTTP
  unsigned int size = 0;                     // bytes of the payload
  const char* transportStatus = nullptr;     // ONLINE or FAILED; null: it stays as it is
  std::optional<unsigned int> requestBytes;  // a sample of the sizes of requests, or none
};

// A response as it was received.
struct Response {
  const ResponseHead* head = nullptr;  // the session's
  buffer_t payload;
  bool fromConfiguredServer = true;
};

class Answers {
 public:
  // `markFailures`: error answers carry http.failure.
  Answers(const DataTConstants& keys, Cookies& cookies, bool markFailures, const WorkerLog& log)
      : _keys(keys), _cookies(cookies), _marks(markFailures), _log(log) {}

  // The response. Its cookies go into the jar where the configured server sent it. Takes the
  // request's id, method and path. Errors are exceptions, with the request as it was.
  Answer sendResponse(Response&& response, request& req) const;

  // The exchange failed: logs it, and tells that in the error shape.
  Answer handleHTTPException(const Failure& failure, request& req) const;

  // The message could not be read: logs it, and answers with whatever the message told of itself.
  Answer refuse(const Failure& failure, Message& message, double startTime) const;

 private:
  // What an error answer carries of its request.
  struct Asked {
    data_t requestId;
    data_t requestSentTime;
    data_t path;
    data_t method;
    double startTime = 0;
  };

  Answer sendError(Asked&& asked, const Failure& failure) const;
  void logFailure(const Failure& failure) const;
  map_t responseHeaders(const ResponseHead& head) const;
  void logResponse(const ResponseHead& head, const buffer_t& payload) const;

  const DataTConstants& _keys;
  Cookies& _cookies;
  const bool _marks;
  const WorkerLog& _log;
};

}  // namespace connectivity::plugins
