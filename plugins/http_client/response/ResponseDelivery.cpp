// From a finished exchange, or a failure, to the one message that goes towards the host.
#include <exception>
#include <string>
#include <utility>

#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/MediaType.h>

#include "connectivity/value_access.hpp"
#include "plugins/http_client/request/Request.hpp"
#include "plugins/http_client/text/CharacterSets.hpp"
#include "plugins/http_client/text/HeaderRules.hpp"
#include "plugins/http_client/worker/ClientSessionThread.hpp"

namespace connectivity::plugins {

namespace {

// Enough slots for the keys of an answer, so that its maps never grow while they are filled.
map_t answerMap() { return map_t(qor_allocate_map(16)); }

void put(map_t& map, const Constant& key, data_t&& value) {
  map.insert({key.value.copy(), std::move(value)}, static_cast<long long>(key.hash));
}

std::string charsetOf(const Poco::Net::MediaType& mediaType) {
  if (!mediaType.hasParameter("charset")) return "utf-8";
  std::string charset = lowerCased(mediaType.getParameter("charset"));
  return charset == "utf8" ? "utf-8" : charset;
}

std::string withoutParameters(const Poco::Net::MediaType& mediaType) {
  return mediaType.getSubType().empty() ? mediaType.getType()
                                        : mediaType.getType() + "/" + mediaType.getSubType();
}

}  // namespace

void HTTPClient::ClientSessionThread::sendResponse(const Poco::Net::HTTPResponse& response,
                                                   buffer_t&& payload, request& req) {
  const DataTConstants& keys = owner.constants;
  logResponse(response, payload);
  map_t headers = responseHeaders(response);
  map_t metadata = answerMap();
  map_t http = answerMap();
  put(http, keys.statusCode, data_t(static_cast<long long>(response.getStatus())));
  put(http, keys.statusReason, data_t(convertFromISO88591(response.getReason())));

  std::string charset = "utf-8";
  std::string contentType;
  if (response.has("Content-Type")) {
    const Poco::Net::MediaType mediaType(response.get("Content-Type"));
    charset = charsetOf(mediaType);
    contentType = withoutParameters(mediaType);
  }
  put(metadata, keys.charset, data_t(convertFromISO88591(charset)));
  put(metadata, keys.contentType, data_t(convertFromISO88591(contentType)));
  put(http, keys.headers, data_t(std::move(headers)));
  put(http, keys.cookies,
      data_t(atConfiguredServer() ? owner.cookies.setCookiesFromResponse(response)
                                  : owner.cookies.cookiesOf(response)));
  put(http, keys.method, std::move(req.method));
  put(http, keys.path, std::move(req.path));
  put(metadata, keys.requestId, std::move(req.requestId));
  put(metadata, keys.requestSentTime, std::move(req.requestSentTime));
  put(metadata, keys.http, data_t(std::move(http)));

  const unsigned int size = payload.size();
  transportLog(Level::Debug, "Sending response towards host");
  owner.sendResponse(Message(data_t(std::move(payload)), std::move(metadata)), req.startTime,
                     response.getStatus(), size);
}

// Names in lower case. Of two headers with one name the first keeps its value.
map_t HTTPClient::ClientSessionThread::responseHeaders(
    const Poco::Net::HTTPResponse& response) const {
  map_t headers = answerMap();
  for (const auto& [name, value] : response) {
    const std::string lower = convertFromISO88591(lowerCased(name));
    const bool isNew = headers.insert(data_t(lower), data_t(convertFromISO88591(value))).second;
    if (!isNew) {
      transportLog(Level::Debug, "Ignoring HTTP header %s because it's duplicated in the message",
                   lower.c_str());
    }
  }
  return headers;
}

void HTTPClient::ClientSessionThread::logResponse(const Poco::Net::HTTPResponse& response,
                                                  const buffer_t& payload) const {
  if (!owner.getLogger().enabled(Level::Trace)) return;
  transportLog(Level::Trace, "   response status = %lld",
               static_cast<long long>(response.getStatus()));
  for (const auto& [name, value] : response) {
    transportLog(Level::Trace, "   response header %s = %s", lowerCased(name).c_str(),
                 convertFromISO88591(value).c_str());
  }
  transportLog(Level::Trace, "   response payload: %s",
               payload.empty() ? "<no payload>" : bufferToString(payload).c_str());
}

void HTTPClient::ClientSessionThread::sendError(data_t&& requestId, const char* message,
                                                data_t&& path, data_t&& method, double startTime,
                                                data_t&& requestSentTime, long long statusCode) {
  const DataTConstants& keys = owner.constants;
  map_t metadata = answerMap();
  map_t http = answerMap();
  put(metadata, keys.requestId, std::move(requestId));
  put(metadata, keys.requestSentTime, std::move(requestSentTime));
  put(http, keys.statusCode, data_t(statusCode));
  put(http, keys.statusReason, data_t(message));
  put(http, keys.path, std::move(path));
  put(http, keys.method, std::move(method));
  put(http, keys.contentType, keys.textPlain.value.copy());
  put(http, keys.charset, keys.utf8.value.copy());
  put(metadata, keys.http, data_t(std::move(http)));
  buffer_t payload = buffer_t::copyOf(message);
  const int size = static_cast<int>(payload.size());
  owner.sendResponse(Message(data_t(std::move(payload)), std::move(metadata)), startTime,
                     static_cast<Poco::Net::HTTPResponse::HTTPStatus>(statusCode), size);
}

void HTTPClient::ClientSessionThread::answerWithError(data_t&& requestId, const char* message,
                                                      data_t&& path, data_t&& method,
                                                      double startTime, data_t&& requestSentTime,
                                                      long long statusCode) noexcept {
  try {
    sendError(std::move(requestId), message, std::move(path), std::move(method), startTime,
              std::move(requestSentTime), statusCode);
  } catch (const std::exception& failure) {
    transportLog(Level::Error, "A request could not be answered: %s", failure.what());
  } catch (...) {
    transportLog(Level::Error, "A request could not be answered: %s", unknownException);
  }
}

void HTTPClient::ClientSessionThread::answerWithError(request& req, const char* message,
                                                      long long statusCode) noexcept {
  answerWithError(std::move(req.requestId), message, std::move(req.path), std::move(req.method),
                  req.startTime, std::move(req.requestSentTime), statusCode);
}

void HTTPClient::ClientSessionThread::handleHTTPException(const char* name, const char* message,
                                                          request& req,
                                                          long long statusCode) noexcept {
  failExchange("Caught exception processing a request", name, message, req, statusCode);
}

void HTTPClient::ClientSessionThread::handleRefusal(const char* message, request& req) noexcept {
  transportLog(Level::Warn, "Caught exception processing a request: %s", message);
  answerWithError(req, message, Poco::Net::HTTPResponse::HTTP_BAD_REQUEST);
}

void HTTPClient::ClientSessionThread::handleRedirectException(const char* name, const char* message,
                                                              request& req) noexcept {
  failExchange("Failed to perform HTTP redirect", name, message, req,
               Poco::Net::HTTPResponse::HTTP_BAD_REQUEST);
}

// Logs "<what>: <name> (<message>)", or "<what>: <message>", and answers.
void HTTPClient::ClientSessionThread::failExchange(const char* what, const char* name,
                                                   const char* message, request& req,
                                                   long long statusCode) noexcept {
  std::string text = message;
  if (name == nullptr) {
    transportLog(Level::Warn, "%s: %s", what, message);
  } else {
    transportLog(Level::Warn, "%s: %s (%s)", what, name, message);
    text = text.empty() ? name : std::string(name) + ": " + message;
  }
  updateStatus([](Metrics& items) { items.updateTransportStatus("FAILED"); });
  answerWithError(req, text.c_str(), statusCode);
}

}  // namespace connectivity::plugins
