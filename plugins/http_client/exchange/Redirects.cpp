// Following a Location: which redirects are followed, where to, and with what.
#include "plugins/http_client/exchange/Redirects.hpp"

#include <exception>
#include <string>
#include <utility>

#include <Poco/Exception.h>

#include "connectivity/value_access.hpp"
#include "plugins/http_client/request/Request.hpp"
#include "plugins/http_client/request/RequestTarget.hpp"
#include "plugins/http_client/text/HeaderRules.hpp"
#include "plugins/http_client/worker/ClientSessionThread.hpp"

namespace connectivity::plugins {

namespace {

using Poco::Net::HTTPResponse;

bool isRedirect(HTTPResponse::HTTPStatus status) noexcept {
  return status == HTTPResponse::HTTP_MOVED_PERMANENTLY || status == HTTPResponse::HTTP_FOUND ||
         status == HTTPResponse::HTTP_SEE_OTHER ||
         status == HTTPResponse::HTTP_TEMPORARY_REDIRECT ||
         status == HTTPResponse::HTTP_PERMANENT_REDIRECT;
}

bool isPermanent(HTTPResponse::HTTPStatus status) noexcept {
  return status == HTTPResponse::HTTP_MOVED_PERMANENTLY ||
         status == HTTPResponse::HTTP_PERMANENT_REDIRECT;
}

// Whether the follow-up is a GET without a body (RFC 9110, 15.4): after 303 all but HEAD, after 301
// and 302 a POST.
bool becomesGet(HTTPResponse::HTTPStatus status, const std::string& method) {
  if (status == HTTPResponse::HTTP_SEE_OTHER) return method != "HEAD";
  return method == "POST" &&
         (status == HTTPResponse::HTTP_MOVED_PERMANENTLY || status == HTTPResponse::HTTP_FOUND);
}

template <typename Request>
void dropBody(Request& req) {
  req.wireMethod = "GET";
  req.payload = data_t(buffer_t());
  req.form = data_t();
  req.headers.erase("content-type");
  req.headers.erase("content-encoding");
}

}  // namespace

bool HTTPClient::ClientSessionThread::processRedirectResponse(const HTTPResponse& response,
                                                              request& req) {
  if (!owner.options.followRedirects || !isRedirect(response.getStatus())) return false;
  if (req.redirectsTaken >= req.redirectLimit) throw RedirectFailed("Maximum redirects exceeded");

  const int status = response.getStatus();
  const std::string id = toText(req.requestId);
  transportLog(Level::Debug, "Received Redirect request for Id %s and status %d", id.c_str(),
               status);
  if (!response.has("Location")) {
    transportLog(
        Level::Warn,
        "Ignored HTTP redirect: No location header specified in redirect for Id %s ,status %d",
        id.c_str(), status);
    return false;
  }
  ++req.redirectsTaken;
  try {
    return followTo(response, req, id);
  } catch (const Poco::Exception& failure) {
    throw RedirectFailed(failure.message(), failure.name());
  } catch (const std::exception& failure) {
    throw RedirectFailed(failure.what());
  }
}

bool HTTPClient::ClientSessionThread::followTo(const HTTPResponse& response, request& req,
                                               const std::string& id) {
  const int status = response.getStatus();
  const std::string& location = response.get("Location");
  const Location current{scheme, sessionHost, sessionPort, req.target};
  const Location next = resolveLocation(current, location);
  transportLog(Level::Debug, "Processing request for status: %llu ,Last URI: %s ,Target URI: %s",
               static_cast<unsigned long long>(status), req.target.c_str(), location.c_str());
  if (next.scheme != current.scheme) {
    transportLog(
        Level::Warn,
        "Ignored HTTP redirect: Id %s, status %d, it redirects to different schema, from %s "
        "to %s and LocationURI %s",
        id.c_str(), status, current.scheme.c_str(), next.scheme.c_str(), location.c_str());
    return false;
  }
  // A host that a Location names comes in lower case; the configured one is as it was given.
  const bool elsewhere =
      lowerCased(next.host) != lowerCased(current.host) || next.port != current.port;
  if (elsewhere && !isPermanent(response.getStatus())) {
    transportLog(
        Level::Warn,
        "Ignored HTTP redirect: Id %s, status %d, it redirects to different host/port, from "
        "host %s or port %u to %s:%u",
        id.c_str(), status, current.host.c_str(), unsigned{current.port}, next.host.c_str(),
        unsigned{next.port});
    return false;
  }
  const bool fromConfiguredServer = atConfiguredServer();
  if (elsewhere) {
    transportLog(Level::Debug, "Received permanent redirects requests with host= %s and new URL %s",
                 next.host.c_str(), location.c_str());
    moveSession(next.host, next.port);
  }
  // Only now is the redirect sure to be followed.
  if (fromConfiguredServer) owner.cookies.storeCookiesFromResponse(response);
  if (becomesGet(response.getStatus(), req.methodText())) dropBody(req);
  req.target = next.target;
  transportLog(Level::Debug, "Redirect Request: %s %s %d and RequestURI %s",
               req.methodText().c_str(), req.pathText(), status, req.target.c_str());
  return true;
}

}  // namespace connectivity::plugins
