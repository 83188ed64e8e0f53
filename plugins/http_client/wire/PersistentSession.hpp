// A worker's HTTP session: one server, one connection that is kept from request to request.
//
// A session is a Poco HTTP client session, and takes its settings there (proxy, time-out,
// keep-alive), but performs the exchanges itself: Poco's streams cannot tell a body that was cut
// short, send in pieces of 4 KB, and leave what is unread to the next response.
//
// Belongs to one thread at a time. Usage:
//
//   session->sendRequest(request).write(body, size);   // size == the request's content length
//   ResponseBody& body = session->receiveResponse(response);
//   ... read body ...
//
// What sendRequest and receiveResponse return is valid until the next sendRequest, reset or the
// session's end. One response never bleeds into another: a connection whose last exchange was not
// consumed to its end, or that holds bytes nobody asked for, is not used again. After an exception
// the next request opens a new connection.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/StreamSocket.h>

#include "plugins/http_client/wire/Connection.hpp"
#include "plugins/http_client/wire/InputBuffer.hpp"
#include "plugins/http_client/wire/RequestBodyStream.hpp"
#include "plugins/http_client/wire/ResponseBody.hpp"

namespace connectivity::plugins {

class PersistentSession {
 public:
  PersistentSession(const PersistentSession&) = delete;
  PersistentSession& operator=(const PersistentSession&) = delete;
  virtual ~PersistentSession() = default;

  // The settings: setProxyConfig, setTimeout, setKeepAlive, setKeepAliveTimeout. The time-out
  // bounds the TCP connect, the TLS handshake, and each wait for the peer, and takes effect with
  // the next connection.
  virtual Poco::Net::HTTPClientSession& poco() noexcept = 0;
  virtual const Poco::Net::HTTPClientSession& poco() const noexcept = 0;
  bool secure() const noexcept { return !_context.isNull(); }

  // Sends the request's head, on the kept connection or a new one. Adds Host where the request has
  // none, and what a proxy needs. The request's content length must be written to the stream that
  // is returned, in any number of pieces; without one no body is sent. The stream throws what
  // sending throws. Throws Poco::TimeoutException, Poco::IOException (where the connection or the
  // proxy failed), Poco::Net::SSLException, or std::logic_error for a request with a
  // Transfer-Encoding or with control characters in its head.
  std::ostream& sendRequest(const Poco::Net::HTTPRequest& request);

  // Reads the response's head. Throws Poco::Net::NoMessageException where the server closed the
  // connection without an answer, Poco::Net::MessageException where the answer is not HTTP,
  // Poco::TimeoutException, or Poco::IOException where the connection failed.
  ResponseBody& receiveResponse(Poco::Net::HTTPResponse& response);

  // Drops the connection, with whatever it may still hold.
  void reset() noexcept;

 protected:
  explicit PersistentSession(Poco::Net::Context::Ptr context) : _context(std::move(context)) {}

  // Tells the Poco session which socket it owns.
  virtual void adoptSocket(const Poco::Net::StreamSocket& socket) = 0;
  virtual void closeSocket() noexcept = 0;

 private:
  using Clock = std::chrono::steady_clock;

  bool usesProxy() const;
  bool canReuseConnection() const;
  void open();
  Poco::Net::StreamSocket openSocket();
  void openTunnel(const Poco::Net::StreamSocket& socket);
  void writeHead(const Poco::Net::HTTPRequest& request);

  const Poco::Net::Context::Ptr _context;  // null: plain HTTP
  std::unique_ptr<Connection> _connection;
  InputBuffer _input;
  ResponseBody _body{_input};
  RequestBodyStream _requestBody;
  std::string _head;            // reused from request to request
  Clock::time_point _lastUsed;  // the end of the last send or of the last head
  bool _answersHead = false;    // the request under way is a HEAD
  bool _underWay = false;       // a request was sent, its response's head not received
  bool _peerKeepsConnection = true;
};

// Sessions connect with their first request.
std::unique_ptr<PersistentSession> openSession(const std::string& host, std::uint16_t port);
// Over TLS, also through a proxy.
std::unique_ptr<PersistentSession> openSession(const std::string& host, std::uint16_t port,
                                               const Poco::Net::Context::Ptr& context);

}  // namespace connectivity::plugins
