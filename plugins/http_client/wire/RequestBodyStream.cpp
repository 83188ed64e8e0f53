#include "plugins/http_client/wire/RequestBodyStream.hpp"

#include <stdexcept>
#include <utility>

namespace connectivity::plugins {

void RequestBuffer::begin(ByteSink* sink, std::string& head, std::int64_t length) {
  _sink = sink;
  _gathered = &head;
  _remaining = length;
  if (_remaining == 0) send({});
}

void RequestBuffer::finish() const {
  if (_remaining > 0) {
    throw std::logic_error("The request's body is shorter than its content length");
  }
}

void RequestBuffer::write(std::string_view piece) {
  if (_sink == nullptr) throw std::logic_error("There is no request to write a body for");
  if (static_cast<std::uint64_t>(_remaining) < piece.size()) {
    throw std::logic_error("The request's body is longer than its content length");
  }
  const bool last = static_cast<std::uint64_t>(_remaining) == piece.size();
  _remaining -= static_cast<std::int64_t>(piece.size());
  if (_gathered->size() + piece.size() > gatherLimit) {
    send(piece);
  } else {
    _gathered->append(piece);
    if (last) send({});
  }
}

// Sends what is gathered, and `piece` behind it. A failure ends the request: nothing is sent twice.
void RequestBuffer::send(std::string_view piece) {
  ByteSink* const sink = std::exchange(_sink, nullptr);
  sink->send(*_gathered, piece);
  _gathered->clear();
  _sink = sink;
}

RequestBuffer::int_type RequestBuffer::overflow(int_type character) {
  if (!traits_type::eq_int_type(character, traits_type::eof())) {
    const char byte = traits_type::to_char_type(character);
    write({&byte, 1});
  }
  return traits_type::not_eof(character);
}

std::streamsize RequestBuffer::xsputn(const char* data, std::streamsize count) {
  if (count > 0) write({data, static_cast<std::size_t>(count)});
  return count;
}

void RequestBodyStream::begin(ByteSink* sink, std::string& head, std::int64_t length) {
  clear();
  _buffer.begin(sink, head, length);
}

}  // namespace connectivity::plugins
