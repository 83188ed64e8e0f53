// One request's bytes on their way out, while its response may already come in.
//
// Sending never waits on its own. What the connection does not take at once goes out whenever the
// response is received: receive() waits for both directions, so that a server which answers as it
// reads, and only reads as fast as it can answer, is never left waiting for us.
//
// A failure to send ends the sending and is kept: the server may have answered before it closed, so
// what it has sent is received first.
//
// Belongs to a session and its thread. The pieces are borrowed until sending() is false.
#pragma once

#include <exception>
#include <functional>
#include <span>
#include <string_view>
#include <vector>

#include "plugins/http_client/wire/InputBuffer.hpp"
#include "plugins/http_client/wire/Layer.hpp"

namespace connectivity::plugins {

class Transmission final : public ByteSource {
 public:
  // Sends what `layer` takes at once of the head and the pieces behind it, or the first part of
  // that. The layer is borrowed until the next begin(), or its end.
  void begin(Layer& layer, std::string_view head, std::span<const std::string_view> body);
  // Bytes are left to be sent.
  bool sending() const noexcept { return _next < _pieces.size(); }
  // What is left is not sent.
  void stop() noexcept { _pieces.clear(), _next = 0; }
  // Why the sending ended before its time, or null.
  const std::exception_ptr& failure() const noexcept { return _failure; }

  // Waits for bytes of the response, and sends meanwhile.
  std::size_t receive(char* data, std::size_t size) override;
  // Sends what is left. Bytes that come meanwhile are nobody's: false where there were some, or
  // where the sending failed.
  bool flush();
  // Calls `then` once nothing is left to be sent: now, or within a receive().
  void whenSent(std::function<void()> then);

 private:
  bool sendSome();
  void sendingEnded();
  void advance(std::size_t sent);

  Layer* _layer = nullptr;
  std::vector<std::string_view> _pieces;  // reused from request to request
  std::size_t _next = 0;                  // the first that has not left whole
  std::exception_ptr _failure;
  std::function<void()> _whenSent;
};

}  // namespace connectivity::plugins
