#include "plugins/http_client/wire/HttpSession.hpp"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include <Poco/Exception.h>

#include "plugins/http_client/text/HostName.hpp"
#include "plugins/http_client/wire/Framing.hpp"
#include "plugins/http_client/wire/TcpLayer.hpp"
#include "plugins/http_client/wire/TlsLayer.hpp"
#include "plugins/http_client/wire/TunnelLayer.hpp"

namespace connectivity::plugins {

namespace {

// What Leftover::Little allows.
constexpr std::size_t littleBytes = 4096;

std::string proxyName(const Route& route) {
  return "the proxy " + authority(route.proxy->host, route.proxy->port);
}

// Who answers a request: the proxy, where it sees it.
std::string answerer(const Route& route) {
  const bool proxied = route.proxy && !route.secure();
  return sentenceStart(proxied ? proxyName(route) : theServer);
}

// REQUIRES: the route has a proxy.
const std::string& tunnelAuthorization(const Route& route, const OutgoingRequest& request) {
  return request.tunnelAuthorization ? *request.tunnelAuthorization : route.proxy->authorization;
}

std::size_t bytesOf(Leftover leftover) noexcept {
  switch (leftover) {
    case Leftover::None:
      return 0;
    case Leftover::Little:
      return littleBytes;
    case Leftover::OverLimit:
      break;
  }
  return HttpSession::drainBytes;
}

}  // namespace

HttpSession::HttpSession(Route route, Resolver& resolver)
    : _route(std::move(route)), _answerer(answerer(_route)), _limits(_route.timeout) {
  const bool proxied = _route.proxy.has_value();
  auto tcp =
      std::make_unique<TcpLayer>(proxied ? _route.proxy->host : _route.host,
                                 proxied ? _route.proxy->port : _route.port, resolver, _limits);
  if (proxied) tcp->blame(proxyName(_route));
  _connection = std::move(tcp);
  if (_route.tunnelled()) {
    std::unique_ptr<TcpLayer> proxy(static_cast<TcpLayer*>(_connection.release()));
    auto tunnel = std::make_unique<TunnelLayer>(std::move(proxy), _route);
    _tunnel = tunnel.get();
    _connection = std::move(tunnel);
  }
  if (_route.secure()) {
    _connection = std::make_unique<TlsLayer>(std::move(_connection), _route.tls,
                                             verifiedName(_route.host), _limits);
  }
}

HttpSession::~HttpSession() { reset(); }

void HttpSession::reset() noexcept {
  _transmission.stop();
  _body.abandon();
  _input.attach(nullptr);
  _connection->close();
  _state = State::Closed;
}

// Whether the open tunnel was made with the credentials that this request asks for.
bool HttpSession::tunnelFits(const OutgoingRequest& request) const {
  return _tunnel == nullptr || _tunnel->authorization() == tunnelAuthorization(_route, request);
}

// The look at the socket is the only system call, and the last condition.
bool HttpSession::canReuseConnection(const OutgoingRequest& request) const {
  return _state == State::Idle && tunnelFits(request) && Clock::now() - _lastUsed < keepAlive &&
         _connection->quiet();
}

void HttpSession::send(const OutgoingRequest& request) {
  _progress = {};
  _connected = false;
  try {
    _limits.check();
    if (!canReuseConnection(request)) open(request);
    _connected = true;
    _answersHead = request.isHead;
    _state = State::Sent;
    _transmission.begin(*_connection, request.head, request.body);
  } catch (...) {
    reset();
    throw;
  }
}

void HttpSession::open(const OutgoingRequest& request) {
  reset();
  if (_tunnel != nullptr) _tunnel->authorizeWith(tunnelAuthorization(_route, request));
  _connection->connect();
  _input.attach(&_transmission);
}

const ResponseHead& HttpSession::receive() {
  if (_state != State::Sent)
    throw std::logic_error("There is no request to receive a response for");
  try {
    receiveHead();
    const BodyFraming body = bodyFraming(_head, _answersHead);
    _keeps = keepsConnection(_head, body) && !_progress.ambiguous;
    constexpr int firstRefusal = 300;
    if (_transmission.sending() && _head.status() >= firstRefusal) {
      _transmission.stop();
      _keeps = false;
    }
    _body.begin(body.framing, body.length);
  } catch (...) {
    reset();
    throw;
  }
  _state = State::Answered;
  return _head;
}

// Where the sending failed, that is the failure, unless the server has answered before.
void HttpSession::receiveHead() {
  try {
    readResponseHead(_input, _head, _answerer, _progress);
  } catch (const Poco::Exception&) {
    if (_progress.begun || !_transmission.failure()) throw;
    std::rethrow_exception(_transmission.failure());
  }
}

void HttpSession::finish(Leftover leftover) noexcept {
  try {
    endExchange(leftover);
  } catch (...) {
    _keeps = false;
  }
  if (_state == State::Answered && _keeps) {
    _state = State::Idle;
    _lastUsed = Clock::now();
  } else {
    reset();
  }
}

void HttpSession::endExchange(Leftover leftover) {
  if (_state != State::Answered) return;
  _body.settle();
  if (!_body.complete() || _transmission.sending()) {
    const std::size_t bound = bytesOf(leftover);
    std::optional<TimeLimits::Shortened> bounded;
    _transmission.whenSent([&] {
      bounded.emplace(_limits, leavesTooMuch(bound) ? std::chrono::seconds::zero() : drainTime);
    });
    skipBody(bound);
    if (_body.complete() && !_transmission.flush()) _keeps = false;
    _transmission.stop();
  }
  if (!_body.complete() || !_input.empty() || _transmission.failure()) _keeps = false;
}

bool HttpSession::leavesTooMuch(std::size_t bound) const noexcept {
  return bound == 0 || _body.announcedRest() > static_cast<std::int64_t>(bound);
}

// Bytes that come while the request is still being sent do not count: the server may need to get
// rid of them before it can read on.
void HttpSession::skipBody(std::size_t bound) {
  while (!_body.complete()) {
    const bool sent = !_transmission.sending();
    if (sent && leavesTooMuch(bound)) return;
    const std::size_t skipped = _body.skipSome();
    if (skipped == 0) return;
    if (sent) bound -= std::min(bound, skipped);
  }
}

}  // namespace connectivity::plugins
