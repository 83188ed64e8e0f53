// From a request record to its answer: the exchange with the server, its one retry, the redirects
// that follow, and the way of every failure to an error response.
#include <exception>
#include <string>
#include <utility>

#include <Poco/Exception.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/NetException.h>

#include "plugins/http_client/exchange/Redirects.hpp"
#include "plugins/http_client/request/ContentEncoding.hpp"
#include "plugins/http_client/request/Refusal.hpp"
#include "plugins/http_client/request/Request.hpp"
#include "plugins/http_client/request/RequestTarget.hpp"
#include "plugins/http_client/response/ResponseReading.hpp"
#include "plugins/http_client/worker/ClientSessionThread.hpp"

namespace connectivity::plugins {

void HTTPClient::ClientSessionThread::handleRequest(request&& req) noexcept {
  bool refused = false;
  try {
    perform(req);
  } catch (const RefusedRequest& refusal) {
    refused = true;
    handleRefusal(refusal.what(), req);
  } catch (const RedirectFailed& failure) {
    handleRedirectException(failure.name(), failure.what(), req);
  } catch (const ResponseLimitExceeded& exceeded) {
    handleHTTPException(nullptr, exceeded.what(), req,
                        Poco::Net::HTTPResponse::HTTP_REQUEST_ENTITY_TOO_LARGE);
  } catch (const Poco::Exception& failure) {
    handleHTTPException(failure.name(), failure.message().c_str(), req,
                        Poco::Net::HTTPResponse::HTTP_BAD_REQUEST);
  } catch (const std::exception& failure) {
    handleHTTPException(nullptr, failure.what(), req, Poco::Net::HTTPResponse::HTTP_BAD_REQUEST);
  } catch (...) {
    handleHTTPException(nullptr, unknownException, req, Poco::Net::HTTPResponse::HTTP_BAD_REQUEST);
  }
  returnToConfiguredServer();
  if (refused) return;
  updateStatus([&](Metrics& items) { items.updateRequestMetrics(req.bodySize); });
}

// The whole way of a request that was read without fault. Throws until the answer is handed over.
void HTTPClient::ClientSessionThread::perform(request& req) {
  transportLog(Level::Debug, "Handling a request for %s path %s", req.methodText().c_str(),
               req.pathText());
  for (const auto& [name, value] : req.queryParameters) {
    transportLog(Level::Trace, "   request query %s = %s", name.c_str(), value.c_str());
  }
  try {
    req.target = requestTarget(owner.options.basePath, req.pathText(), req.queryParameters);
  } catch (const std::exception& badTarget) {
    throw RefusedRequest(badTarget.what());
  }
  Poco::Net::HTTPResponse response;
  buffer_t payload;
  do {
    payload = exchange(req, response);
  } while (processRedirectResponse(response, req));
  owner.metrics.updateTransportStatus("ONLINE");
  sendResponse(response, std::move(payload), req);
}

// One exchange, tried a second time where the connection failed. A time-out is no such failure.
buffer_t HTTPClient::ClientSessionThread::exchange(request& req,
                                                   Poco::Net::HTTPResponse& response) {
  try {
    return attempt(req, response);
  } catch (const Poco::Net::NoMessageException& failure) {
    prepareRetry("Poco::Net::NoMessageException", failure);
  } catch (const Poco::Net::ConnectionAbortedException& failure) {
    prepareRetry("Poco::Net::ConnectionAbortedException", failure);
  } catch (const Poco::IOException& failure) {
    prepareRetry("Poco::IOException", failure);
  }
  return attempt(req, response);
}

buffer_t HTTPClient::ClientSessionThread::attempt(request& req, Poco::Net::HTTPResponse& response) {
  Poco::Net::HTTPRequest httpRequest(req.methodText(), req.target, "HTTP/1.1");
  ContentEncoding(*this).generateRequest(req, httpRequest);
  ResponseBody& body = session->receiveResponse(response);
  const unsigned int size = processResponse(response, body, responseBuffer, req);
  return buffer_t::copyOf({responseBuffer.data(), size});
}

void HTTPClient::ClientSessionThread::prepareRetry(const char* kind,
                                                   const Poco::Exception& failure) {
  transportLog(Level::Debug, "Caught a %s processing a request, will retry once: %s (%s)", kind,
               failure.name(), failure.message().c_str());
  resetSession();
}

}  // namespace connectivity::plugins
