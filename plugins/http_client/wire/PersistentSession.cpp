#include "plugins/http_client/wire/PersistentSession.hpp"

#include <stdexcept>
#include <string_view>
#include <utility>

#include <Poco/Exception.h>
#include <Poco/Net/HTTPBasicCredentials.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/String.h>
#include <Poco/Timespan.h>

#include "plugins/http_client/wire/ResponseHead.hpp"

namespace connectivity::plugins {

namespace {

using Poco::Net::HTTPClientSession;
using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;
using Poco::Net::StreamSocket;

constexpr std::string_view lineEnd = "\r\n";
constexpr const char* proxyAuthorizationName = "Proxy-Authorization";

// "host:port", an IPv6 address in brackets.
std::string authority(const std::string& host, std::uint16_t port) {
  const bool isIPv6 = host.find(':') != std::string::npos;
  std::string text;
  if (isIPv6) text.push_back('[');
  text.append(host);
  if (isIPv6) text.push_back(']');
  text.push_back(':');
  return text.append(std::to_string(port));
}

// The value of a Host header: the port only where it is not the scheme's own.
std::string hostHeader(const HTTPClientSession& session, bool secure) {
  std::string value = authority(session.getHost(), session.getPort());
  const std::string_view defaultPort = secure ? ":443" : ":80";
  if (value.ends_with(defaultPort)) value.erase(value.size() - defaultPort.size());
  return value;
}

// The value of Proxy-Authorization; empty without credentials.
std::string proxyAuthorization(const HTTPClientSession::ProxyConfig& proxy) {
  if (proxy.authMethod != HTTPClientSession::PROXY_AUTH_HTTP_BASIC) return {};
  if (proxy.username.empty() && proxy.password.empty()) return {};
  HTTPRequest carrier;
  Poco::Net::HTTPBasicCredentials(proxy.username, proxy.password).proxyAuthenticate(carrier);
  return carrier.get(proxyAuthorizationName);
}

// Control characters could end the line, and so forge a header or a whole request.
void append(std::string& head, std::string_view text) {
  constexpr std::string_view forbidden("\r\n\0", 3);
  if (text.find_first_of(forbidden) != std::string_view::npos) {
    throw std::invalid_argument("Control character in the head of a request");
  }
  head.append(text);
}

void appendField(std::string& head, std::string_view name, std::string_view value) {
  append(head, name);
  head.append(": ");
  append(head, value);
  head.append(lineEnd);
}

std::int64_t bodyLength(const HTTPRequest& request) {
  if (request.getTransferEncoding() != HTTPRequest::IDENTITY_TRANSFER_ENCODING) {
    throw std::invalid_argument("A request's body is framed by its content length only");
  }
  return request.hasContentLength() ? request.getContentLength64() : 0;
}

// A Poco session whose exchanges are the persistent session's.
template <typename PocoSession>
class SessionOver final : public PocoSession, public PersistentSession {
 public:
  template <typename... Target>
  explicit SessionOver(Poco::Net::Context::Ptr context, Target&&... target)
      : PocoSession(std::forward<Target>(target)...), PersistentSession(std::move(context)) {
    // Not what the process may have set as its global proxy.
    this->setProxyConfig(HTTPClientSession::ProxyConfig());
  }
  ~SessionOver() override = default;

  HTTPClientSession& poco() noexcept override { return *this; }
  const HTTPClientSession& poco() const noexcept override { return *this; }

  std::ostream& sendRequest(HTTPRequest& request) override {
    return PersistentSession::sendRequest(request);
  }
  std::istream& receiveResponse(HTTPResponse& response) override {
    return PersistentSession::receiveResponse(response);
  }
  bool peekResponse(HTTPResponse& /*response*/) override {
    throw Poco::NotImplementedException("No request asks for 100 Continue");
  }
  void abort() override { PersistentSession::reset(); }
  void reset() noexcept { PersistentSession::reset(); }
  bool secure() const override { return PersistentSession::secure(); }

 protected:
  void adoptSocket(const StreamSocket& socket) override { this->attachSocket(socket); }
  void closeSocket() noexcept override {
    try {
      this->close();
    } catch (const Poco::Exception&) {  // NOLINT(bugprone-empty-catch): it is gone either way
    }
  }
};

}  // namespace

bool PersistentSession::usesProxy() const {
  return !poco().getProxyHost().empty() && !poco().bypassProxy();
}

void PersistentSession::reset() noexcept {
  _body.abandon();
  _requestBody.abandon();
  _input.attach(nullptr);
  _connection.reset();
  closeSocket();
  _underWay = false;
}

// The last look at the socket is the only system call, and the last condition.
bool PersistentSession::canReuseConnection() const {
  return _connection && poco().connected() && poco().getKeepAlive() && _peerKeepsConnection &&
         !_underWay && _body.complete() && _input.empty() &&
         Clock::now() - _lastUsed <
             std::chrono::microseconds(poco().getKeepAliveTimeout().totalMicroseconds()) &&
         _connection->quiet();
}

std::ostream& PersistentSession::sendRequest(const HTTPRequest& request) {
  try {
    const std::int64_t length = bodyLength(request);
    writeHead(request);
    _body.settle();
    if (!canReuseConnection()) {
      reset();
      open();
    }
    _answersHead = request.getMethod() == HTTPRequest::HTTP_HEAD;
    _underWay = true;
    _requestBody.begin(_connection.get(), _head, length);
    _lastUsed = Clock::now();
    return _requestBody;
  } catch (...) {
    reset();
    throw;
  }
}

ResponseBody& PersistentSession::receiveResponse(HTTPResponse& response) {
  if (!_underWay) throw std::logic_error("There is no request to receive a response for");
  try {
    _requestBody.finish();
    readResponseHead(_input, response);
    const BodyFraming body = bodyFraming(response, _answersHead);
    _peerKeepsConnection = keepsConnection(response, body);
    _body.begin(body.framing, body.length);
  } catch (...) {
    reset();
    throw;
  }
  _requestBody.abandon();
  _lastUsed = Clock::now();
  _underWay = false;
  return _body;
}

void PersistentSession::open() {
  const HTTPClientSession& settings = poco();
  const bool proxied = usesProxy();
  const auto addresses = proxied ? addressesOf(settings.getProxyHost(), settings.getProxyPort())
                                 : addressesOf(settings.getHost(), settings.getPort());
  const StreamSocket socket = connectToFirst(addresses, settings.getTimeout());
  adoptSocket(socket);
  if (proxied && secure()) openTunnel(socket);
  _connection = secure()
                    ? tlsConnection(socket, _context, settings.getHost(), settings.getTimeout())
                    : plainConnection(socket);
  _input.attach(_connection.get());
  _peerKeepsConnection = true;
}

// Asks the proxy for a connection to the server (RFC 9110, 9.3.6).
void PersistentSession::openTunnel(const StreamSocket& socket) {
  const std::string target = authority(poco().getHost(), poco().getPort());
  std::string head;
  head.append("CONNECT ");
  append(head, target);
  head.append(" HTTP/1.1").append(lineEnd);
  appendField(head, "Host", target);
  appendField(head, "Proxy-Connection", "keep-alive");
  const std::string authorization = proxyAuthorization(poco().getProxyConfig());
  if (!authorization.empty()) appendField(head, proxyAuthorizationName, authorization);
  head.append(lineEnd);

  const std::unique_ptr<Connection> proxy = plainConnection(socket);
  InputBuffer input;
  input.attach(proxy.get());
  proxy->send(head, {});
  HTTPResponse answer;
  readResponseHead(input, answer);
  if (answer.getStatus() / 100 != 2) {
    std::string text = "The proxy refused a tunnel to ";
    text.append(target).append(": ").append(std::to_string(answer.getStatus()));
    throw Poco::Net::HTTPException(text.append(" ").append(answer.getReason()));
  }
  if (!input.empty()) {
    throw Poco::Net::MessageException("The proxy sent more than its answer for a tunnel");
  }
}

void PersistentSession::writeHead(const HTTPRequest& request) {
  const HTTPClientSession& settings = poco();
  const bool toProxy = !secure() && usesProxy();
  _head.clear();
  append(_head, request.getMethod());
  _head.push_back(' ');
  if (toProxy) {
    _head.append("http://");
    append(_head, authority(settings.getHost(), settings.getPort()));
  }
  append(_head, request.getURI());
  _head.push_back(' ');
  append(_head, request.getVersion());
  _head.append(lineEnd);
  if (!request.has(HTTPRequest::HOST)) {
    appendField(_head, "Host", hostHeader(settings, secure()));
  }
  const std::string authorization =
      toProxy ? proxyAuthorization(settings.getProxyConfig()) : std::string();
  for (const auto& [name, value] : request) {
    const bool replaced =
        !authorization.empty() && Poco::icompare(name, proxyAuthorizationName) == 0;
    if (!replaced) appendField(_head, name, value);
  }
  if (!settings.getKeepAlive() && !request.has(HTTPRequest::CONNECTION)) {
    appendField(_head, "Connection", "close");
  }
  if (toProxy && settings.getKeepAlive()) appendField(_head, "Proxy-Connection", "keep-alive");
  if (!authorization.empty()) appendField(_head, proxyAuthorizationName, authorization);
  _head.append(lineEnd);
}

std::unique_ptr<PersistentSession> openSession(const std::string& host, std::uint16_t port) {
  return std::make_unique<SessionOver<HTTPClientSession>>(Poco::Net::Context::Ptr(), host, port);
}

std::unique_ptr<PersistentSession> openSession(const std::string& host, std::uint16_t port,
                                               const Poco::Net::Context::Ptr& context) {
  return std::make_unique<SessionOver<Poco::Net::HTTPSClientSession>>(context, host, port, context);
}

}  // namespace connectivity::plugins
