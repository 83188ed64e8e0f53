// The stream into which a request's body is written, and what stands before it: the head.
//
// Owned by its session and used by its thread, from sendRequest() to receiveResponse(). A small
// body leaves together with the head in one piece, a large one straight from the caller's memory. A
// failure to send is thrown out of the stream's functions as the exception that it was.
#pragma once

#include <cstdint>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>

namespace connectivity::plugins {

// Where bytes go: a connection.
class ByteSink {
 public:
  ByteSink() = default;
  ByteSink(const ByteSink&) = delete;
  ByteSink& operator=(const ByteSink&) = delete;
  virtual ~ByteSink() = default;
  // Sends both whole, one behind the other. Blocks within the connection's time-out for each piece
  // that the connection takes. Throws Poco::TimeoutException or a Poco::IOException.
  virtual void send(std::string_view first, std::string_view second) = 0;
};

class RequestBuffer final : public std::streambuf {
 public:
  // Pieces of the body up to here are gathered; larger ones are sent from where they are.
  static constexpr std::size_t gatherLimit = 16384;

  // The head to be sent; `length` bytes of body must follow it. Sends it at once where there are
  // none. `head` stays the caller's to fill for the next request.
  void begin(ByteSink* sink, std::string& head, std::int64_t length);
  // Throws std::logic_error where less was written than announced.
  void finish() const;
  void abandon() noexcept { _sink = nullptr; }

 protected:
  int_type overflow(int_type character) override;
  std::streamsize xsputn(const char* data, std::streamsize count) override;

 private:
  void write(std::string_view piece);
  void send(std::string_view piece);

  ByteSink* _sink = nullptr;
  std::string* _gathered = nullptr;
  std::int64_t _remaining = 0;
};

class RequestBodyStream final : public std::ostream {
 public:
  RequestBodyStream() : std::ostream(nullptr) {
    rdbuf(&_buffer);
    exceptions(std::ios::badbit);
  }

  void begin(ByteSink* sink, std::string& head, std::int64_t length);
  void finish() const { _buffer.finish(); }
  void abandon() noexcept { _buffer.abandon(); }

 private:
  RequestBuffer _buffer;
};

}  // namespace connectivity::plugins
