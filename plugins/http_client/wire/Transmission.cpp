#include "plugins/http_client/wire/Transmission.hpp"

#include <array>
#include <utility>

#include <Poco/Exception.h>

namespace connectivity::plugins {

namespace {

// So much is sent before it is looked whether the server has answered.
constexpr std::size_t turnBytes = 262144;

}  // namespace

void Transmission::begin(Layer& layer, std::string_view head,
                         std::span<const std::string_view> body) {
  _layer = &layer;
  _failure = nullptr;
  _whenSent = nullptr;
  _next = 0;
  _pieces.assign(1, head);
  for (const std::string_view piece : body) {
    if (!piece.empty()) _pieces.push_back(piece);
  }
  sendSome();
}

// As much as goes out without waiting, a turn of it: then it is time to look for an answer. False
// where it would have to wait.
bool Transmission::sendSome() {
  std::size_t turn = 0;
  try {
    while (sending() && turn < turnBytes) {
      const std::size_t sent = _layer->send(std::span(_pieces).subspan(_next));
      if (sent == 0) return turn > 0;
      advance(sent);
      turn += sent;
    }
  } catch (const Poco::Exception&) {
    _failure = std::current_exception();
    stop();
  }
  if (!sending()) sendingEnded();
  return true;
}

void Transmission::advance(std::size_t sent) {
  while (sending() && sent >= _pieces[_next].size()) sent -= _pieces[_next++].size();
  if (sent > 0) _pieces[_next].remove_prefix(sent);
}

void Transmission::sendingEnded() {
  if (_whenSent) std::exchange(_whenSent, nullptr)();
}

// Sends first: a peer that never stops sending must not keep us from it.
std::size_t Transmission::receive(char* data, std::size_t size) {
  while (sending()) {
    const bool goesOn = sendSome();
    if (const auto count = _layer->receive(data, size, Wait::No)) return *count;
    if (!goesOn) _layer->awaitEither();
  }
  return _layer->receive(data, size, Wait::Yes).value_or(0);
}

bool Transmission::flush() {
  std::array<char, 4096> nobodys;  // NOLINT(*-member-init): only written
  bool clean = true;
  while (sending()) {
    const auto count = _layer->receive(nobodys.data(), nobodys.size(), Wait::No);
    if (count) clean = false;
    if (!count) _layer->awaitEither();
    // The peer sends no more, and may still read.
    if (count && *count == 0) _layer->awaitRoom();
    sendSome();
  }
  return clean && !_failure;
}

void Transmission::whenSent(std::function<void()> then) {
  _whenSent = std::move(then);
  if (!sending()) sendingEnded();
}

}  // namespace connectivity::plugins
