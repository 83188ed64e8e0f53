// A worker's HTTP session: the way to one server, and one connection that is kept from request to
// request.
//
// Belongs to one thread at a time. One exchange, in order:
//
//   session.send({head, bodyPieces, ...});       // opens the connection where there is none
//   const ResponseHead& head = session.receive();
//   ... read session.body() ...
//   session.finish(Leftover::Little);            // the connection is kept, or closed now
//
// The bytes given to send() are borrowed until finish() or reset(). What receive() and body() give
// holds until the next send(), reset() or the session's end.
//
// One response never bleeds into another: a connection whose last exchange was not consumed to its
// end, or that holds bytes nobody asked for, is not used again. Whatever throws leaves the
// connection closed.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "plugins/http_client/wire/InputBuffer.hpp"
#include "plugins/http_client/wire/Layer.hpp"
#include "plugins/http_client/wire/ResponseBody.hpp"
#include "plugins/http_client/wire/ResponseHead.hpp"
#include "plugins/http_client/wire/ResponseHeadReading.hpp"
#include "plugins/http_client/wire/Route.hpp"
#include "plugins/http_client/wire/TimeLimits.hpp"
#include "plugins/http_client/wire/Transmission.hpp"

namespace connectivity::plugins {

class Resolver;
class TunnelLayer;

// One request as it goes out.
struct OutgoingRequest {
  std::string_view head;                   // request line and fields, with the empty line
  std::span<const std::string_view> body;  // its pieces, one behind the other
  bool isHead = false;                     // the answer has no body
  // For the CONNECT of a tunnel, in place of the configured credentials; nothing: those.
  std::optional<std::string> tunnelAuthorization;
};

// How much may be left of a response that nobody read.
enum class Leftover {
  None,       // the connection is closed
  Little,     // a last chunk, trailers, some stray bytes
  OverLimit,  // up to 1 MiB and 1 s: what is behind a limit
};

class HttpSession {
 public:
  using Clock = TimeLimits::Clock;

  // A connection that was idle for this long is not used again.
  static constexpr std::chrono::seconds keepAlive{8};
  // What Leftover::OverLimit allows.
  static constexpr std::size_t drainBytes = std::size_t{1} << 20U;
  static constexpr std::chrono::seconds drainTime{1};

  // Connects with the first request. The resolver is borrowed.
  HttpSession(Route route, Resolver& resolver);
  ~HttpSession();
  HttpSession(const HttpSession&) = delete;
  HttpSession& operator=(const HttpSession&) = delete;

  const Route& route() const noexcept { return _route; }
  // For the requests from now on.
  void setDeadline(std::optional<Clock::time_point> deadline) { _limits.setDeadline(deadline); }

  // Sends as much as leaves at once; the rest goes out while the response is received. Throws what
  // opening the connection throws (see the layers), and DeadlineExceeded.
  void send(const OutgoingRequest& request);

  // Reads the head of the final response. Where the sending failed because the server has closed,
  // what it has sent before is the answer. A status of 300 and more that comes before the request
  // is out ends the sending. Throws Poco::Net::NoMessageException where the server closed without
  // an answer, Poco::Net::MessageException where the answer is malformed, Poco::TimeoutException,
  // DeadlineExceeded, or Poco::IOException where the connection failed.
  const ResponseHead& receive();

  // The body of the response that was received.
  ResponseBody& body() noexcept { return _body; }
  const ResponseHead& head() const noexcept { return _head; }

  // The answer has been read as far as it is wanted. Sends what is left of the request, reads past
  // what is left of the response, within the bounds of `leftover`, and closes the connection where
  // it is not to be used again. No failure here changes the answer.
  void finish(Leftover leftover) noexcept;

  // Drops the connection, with whatever it may still hold.
  void reset() noexcept;

  // Of the latest request: the connection was open, so that it may have been sent.
  bool connected() const noexcept { return _connected; }
  // Of the latest request: a byte of an answer has come, so that it must not be sent again.
  bool answerBegun() const noexcept { return _progress.begun; }

 private:
  enum class State { Closed, Sent, Answered, Idle };

  bool canReuseConnection(const OutgoingRequest& request) const;
  bool tunnelFits(const OutgoingRequest& request) const;
  void open(const OutgoingRequest& request);
  void receiveHead();
  void endExchange(Leftover leftover);
  void skipBody(std::size_t bound);
  // Of the response, for what may be read past.
  bool leavesTooMuch(std::size_t bound) const noexcept;

  const Route _route;
  const std::string _answerer;  // begins the sentences about an answer: "The server"
  TimeLimits _limits;
  TunnelLayer* _tunnel = nullptr;  // one of the layers, or null
  std::unique_ptr<Layer> _connection;
  Transmission _transmission;
  InputBuffer _input;
  ResponseHead _head;
  ResponseBody _body{_input};
  HeadProgress _progress;
  State _state = State::Closed;
  bool _connected = false;
  bool _answersHead = false;
  bool _keeps = false;  // the peer lets the connection be used again
  Clock::time_point _lastUsed;
};

}  // namespace connectivity::plugins
