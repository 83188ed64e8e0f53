// One worker of the transport's fixed pool: a thread with one persistent HTTP session.
//
// The worker takes requests from the transport's queue, performs each on its session, and hands
// back exactly one answer for each. Everything below run() happens on the worker's own thread,
// except the constructor, which opens the first session on the host's control thread.
//
// The member functions stand in the files of this folder, one for each step of a request's way:
//   ClientSessionThread.cpp  the loop
//   SessionSetup.cpp         opening and resetting the session
//   RequestReading.cpp       message -> request record, or a refusal
//   Exchange.cpp             record -> HTTP exchange, with its one retry
//   RequestHeaders.cpp       cookies, credentials, default and user headers
//   ContentEncoding.cpp      the body, framed and coded (FormBody.cpp: forms)
//   ResponseReading.cpp      the response's body, decoded and limited
//   Redirects.cpp            following a Location
//   ResponseDelivery.cpp     the answer, or the error, towards the host
#pragma once

#include <atomic>
#include <cstdint>
#include <istream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>

#include "connectivity/data_t.hpp"
#include "orrery/SchedulableQueue.hpp"
#include "orrery/Thread.hpp"
#include "plugins/http_client/HTTPClient.hpp"
#include "plugins/http_client/text/MediaTypes.hpp"
#include "plugins/http_client/wire/PersistentSession.hpp"

namespace connectivity::plugins {

class HTTPClient::ClientSessionThread final : public orrery::Thread {
 public:
  struct request;
  class ContentEncoding;

  // Opens the session; its failure is the constructor's.
  ClientSessionThread(HTTPClient& transport, unsigned workerNumber);
  ~ClientSessionThread() override;

  // The queue in which the host wants this worker's requests counted; null until the first batch.
  std::atomic<orrery::SchedulableQueue*> schedulableQueue{nullptr};

 protected:
  void run() override;

 private:
  friend class ContentEncoding;

  template <typename... Arguments>
  void transportLog(Level level, const char* format, Arguments... arguments) const {
    owner.getLogger().logForWorker(index, level, format, arguments...);
  }

  // Sets status items. No answer depends on them: what the host's status functions throw is logged.
  template <typename Update>
  void updateStatus(Update&& update) const noexcept {
    try {
      update(owner.metrics);
    } catch (...) {
      handleException(owner.getLogger(), Level::Error, "updateStatus");
    }
  }

  bool serveNext() noexcept;
  void reportFailure(const char* text) const noexcept;
  void closeSessions() noexcept;

  // SessionSetup.cpp. Opens a session to `host`; the old one stays where that fails.
  void setSession(const std::string& host, std::uint64_t port);
  // Drops the session's connection, and whatever it may still hold, before its next request.
  void resetSession() noexcept;
  std::unique_ptr<PersistentSession> newSession(const std::string& host, std::uint16_t port) const;
  // Serves the rest of the request from another server.
  void moveSession(const std::string& host, std::uint16_t port);
  void returnToConfiguredServer() noexcept;
  bool isConfiguredServer(const std::string& host, std::uint16_t port) const;

  // RequestReading.cpp. Performs one request and answers it, whatever happens. Never throws.
  void processRequest(Message&& message) noexcept;
  request readRequest(Message& message, double startTime) const;
  std::map<std::string, std::string> readHeaders(const map_t* http) const;
  void refuse(Message& message, const char* text, double startTime) noexcept;

  // Exchange.cpp. Never throws: a failure becomes the request's error response.
  void handleRequest(request&& req) noexcept;
  void perform(request& req);
  buffer_t exchange(request& req, Poco::Net::HTTPResponse& response);
  buffer_t attempt(request& req, Poco::Net::HTTPResponse& response);
  void prepareRetry(const char* kind, const Poco::Exception& failure);

  // RequestHeaders.cpp. Completes the header of `httpRequest` and logs it.
  void createRequest(Poco::Net::HTTPRequest& httpRequest, request& req, unsigned int bodySize);
  void addCookies(Poco::Net::HTTPRequest& httpRequest, const request& req);
  void logRequest(const Poco::Net::HTTPRequest& httpRequest, const request& req) const;

  // ResponseReading.cpp. The bytes of `buffer` that are the body.
  unsigned int processResponse(Poco::Net::HTTPResponse& response, ResponseBody& body,
                               std::vector<char>& buffer, request& req);

  // Redirects.cpp. True when `req` has become the follow-up request of a redirect.
  bool processRedirectResponse(const Poco::Net::HTTPResponse& response, request& req);
  bool followTo(const Poco::Net::HTTPResponse& response, request& req, const std::string& id);

  // ResponseDelivery.cpp.
  void sendResponse(const Poco::Net::HTTPResponse& response, buffer_t&& payload, request& req);
  map_t responseHeaders(const Poco::Net::HTTPResponse& response) const;
  void logResponse(const Poco::Net::HTTPResponse& response, const buffer_t& payload) const;
  void sendError(data_t&& requestId, const char* message, data_t&& path, data_t&& method,
                 double startTime, data_t&& requestSentTime, long long statusCode);
  // sendError, for the places that have nobody left to report a failure to. Never throws.
  void answerWithError(data_t&& requestId, const char* message, data_t&& path, data_t&& method,
                       double startTime, data_t&& requestSentTime, long long statusCode) noexcept;
  void answerWithError(request& req, const char* message, long long statusCode) noexcept;
  // The exchange failed: logs, sets the status to FAILED and answers. `name` may be null.
  void handleHTTPException(const char* name, const char* message, request& req,
                           long long statusCode) noexcept;
  // The request was refused before anything was sent: logs and answers.
  void handleRefusal(const char* message, request& req) noexcept;
  // The redirect could not be followed: logs, sets the status to FAILED and answers.
  void handleRedirectException(const char* name, const char* message, request& req) noexcept;
  void failExchange(const char* what, const char* name, const char* message, request& req,
                    long long statusCode) noexcept;

  // Whether the session leads to the configured server rather than to where a redirect pointed.
  bool atConfiguredServer() const noexcept { return configuredSession == nullptr; }

  HTTPClient& owner;
  std::unique_ptr<PersistentSession> session;
  std::string sessionHost;
  std::uint16_t sessionPort = 0;
  // The session to the configured server, kept aside while a request follows a permanent redirect
  // to another one; otherwise null.
  std::unique_ptr<PersistentSession> configuredSession;
  std::string scheme = "http";
  const std::string userAgent = "Orrery/10.15 (armv7-debian10)";
  const std::set<std::string> methodsWithoutBody = {"DELETE", "HEAD", "TRACE"};
  const unsigned index;
  std::vector<char> responseBuffer;  // reused from response to response

  // The text for what was thrown but is no exception of the standard library's.
  static constexpr const char* unknownException = "Unknown exception";
};

}  // namespace connectivity::plugins
