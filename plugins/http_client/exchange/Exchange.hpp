// A request's way to its server and back: the attempts, the second attempt, the redirects.
//
// Belongs to one worker and its thread; what is given is borrowed.
//
// A request may be sent a second time only where its connection failed before a byte of an answer
// came. Whatever goes wrong after that is an answer that cannot be used.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <Poco/Exception.h>

#include "plugins/http_client/config/ConfiguredOptions.hpp"
#include "plugins/http_client/exchange/Redirects.hpp"
#include "plugins/http_client/exchange/SessionHome.hpp"
#include "plugins/http_client/request/PreparedRequest.hpp"
#include "plugins/http_client/request/Request.hpp"
#include "plugins/http_client/request/RequestBody.hpp"
#include "plugins/http_client/response/Answers.hpp"
#include "plugins/http_client/response/Failures.hpp"
#include "plugins/http_client/shared/Cookies.hpp"
#include "plugins/http_client/shared/WorkerLog.hpp"

namespace connectivity::plugins {

// How a request ended: with a response, or a failure.
struct Outcome {
  std::optional<Response> response;
  Failure failure;                // where there is no response
  unsigned int requestBytes = 0;  // of the body as it was first sent, after compression
};

class Exchange {
 public:
  Exchange(const ConfiguredOptions& options, Cookies& cookies, SessionHome& home,
           const WorkerLog& log);

  // Whatever becomes of the request is in the outcome; throws only where memory does not suffice to
  // tell it. The response's head is the session's: valid until the session is used or closed.
  Outcome handleRequest(request& req);
  // Gives memory back that a large response has left. Call it when an answer has been delivered.
  void trim() noexcept;

 private:
  // How far a request came at the most: a connection that one of its attempts had may have carried
  // it, whatever became of the attempts behind that.
  enum class Reached { Nothing, Session, Connection };

  void perform(request& req, Outcome& outcome);
  void announce(const request& req) const;
  RequestBody bodyOf(request& req) const;
  // One exchange, tried a second time where the connection failed. A time-out is no such failure.
  void exchange(const request& req, const RequestBody& body, Outcome& outcome);
  void attempt(const PreparedRequest& prepared, const request& req, Outcome& outcome);
  void readBody(const request& req, Outcome& outcome);
  void prepareRetry(const char* kind, const Poco::Exception& failure);
  // What a redirect asks next; the session leads there. Nothing where the response is to be
  // delivered.
  std::optional<FollowUp> followUp(request& req, const Response& response);
  FailureKind kindOfFailure() noexcept;

  const bool _followsRedirects;
  const std::string& _basePath;
  Cookies& _cookies;
  SessionHome& _home;
  const WorkerLog& _log;
  const HeadWriter _heads;
  std::vector<char> _buffer;  // reused from response to response
  Reached _reached = Reached::Nothing;
};

}  // namespace connectivity::plugins
