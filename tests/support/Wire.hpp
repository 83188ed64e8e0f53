// One accepted connection of a ScriptedServer, as its script sees it: requests read, bytes sent,
// and every way in which a connection can end.
//
// A Connection belongs to its own thread. A peer that went away shows as the end of the requests;
// sending to it does nothing.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/support/Descriptor.hpp"
#include "tests/support/Event.hpp"

namespace test_support {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

// A request as it came over the wire.
struct RecordedRequest {
  int connection = 0;  // counted from 1
  std::string method;
  std::string target;
  std::string version;
  HeaderList headers;  // in order, names as they were sent
  std::string body;    // chunks joined
  std::string raw;     // head and body, every byte

  // The value of the first header of that name, in any case.
  std::optional<std::string> header(std::string_view name) const;
  std::size_t headerCount(std::string_view name) const;
};

// A connection's bytes, plain or within TLS. Used by the connection's thread; interrupt() by any.
class Channel {
 public:
  virtual ~Channel() = default;
  // 0 at the end, whatever its reason.
  virtual std::size_t receive(char* into, std::size_t room) = 0;
  virtual bool send(std::string_view bytes) = 0;
  // An orderly end; under TLS with a close_notify.
  virtual void close() = 0;
  // The end of the connection without any word under TLS.
  virtual void drop() = 0;
  virtual void reset() = 0;
  virtual void halfClose() = 0;
  virtual int socket() const = 0;
};

class Connection {
 public:
  // Puts a request on record; returns when the record stands.
  using Recorder = std::function<void(const RecordedRequest&)>;

  Connection(Channel& channel, int number, Recorder recorder)
      : _channel(channel), _recorder(std::move(recorder)), _number(number) {}
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Which connection of the server this is, counted from 1.
  int number() const noexcept { return _number; }

  // The next request with its body, or none where the peer has closed. It is on record before this
  // returns.
  std::optional<RecordedRequest> readRequest();
  // The next request's head; its body stays unread.
  std::optional<RecordedRequest> readHead();
  // The next bytes of a body, as many; none where the peer closes before.
  std::optional<std::string> readExactly(std::size_t count);
  // Reads and drops up to that many bytes; false where the peer closes before.
  bool readBytes(std::size_t count);
  // What has come and was not read, at least one byte; empty where the peer has closed.
  std::string readSome();
  // Reads and drops whatever comes until the peer closes.
  void awaitPeerClose();
  // Waits for the peer to close, at most that long after the latest byte from it, which stays
  // unread. For where not closing is a result.
  bool peerClosesWithin(std::chrono::milliseconds limit);

  // False where the peer takes no more.
  bool send(std::string_view bytes) { return _channel.send(bytes); }
  // A response with a Content-Length, unless the headers have one or a Transfer-Encoding.
  void sendResponse(int status, const HeaderList& headers = {}, std::string_view body = {});
  void sendChunked(int status, const HeaderList& headers, const std::vector<std::string>& chunks,
                   const HeaderList& trailers = {});
  // Sends the bytes in that many pieces; each but the first passes the gate before it is sent.
  void trickle(std::string_view bytes, std::size_t pieces, Gate& gate);
  // Takes that long, for a server that is slow; less, and then false, where the peer closes.
  bool linger(std::chrono::milliseconds pause);
  // Sends the bytes one by one with that pause before each, while the peer stays.
  void drip(std::string_view bytes, std::chrono::milliseconds pause);
  // Does nothing until the event is set.
  void stallUntil(const Event& event) { event.wait(); }

  void close() { _channel.close(); }
  void closeWithoutNotify() { _channel.drop(); }
  void reset() { _channel.reset(); }
  // Sends the end of the stream; the peer may still send.
  void halfClose() { _channel.halfClose(); }

  // Bytes both ways between the peer and a port on 127.0.0.1, until either side ends.
  void tunnelTo(int port);
  // Sends the bytes and the end of the stream to a port on 127.0.0.1: all that comes back until its
  // end. None where nobody listens, nothing comes, or the peer of this connection goes first.
  std::optional<std::string> exchangeWith(int port, std::string_view bytes);

 private:
  bool fill();
  std::optional<std::string> takeHead();
  bool takeBytes(std::size_t count, std::string& into);
  bool takeLine(std::string& into);
  bool takeChunks(RecordedRequest& request);

  Channel& _channel;
  const Recorder _recorder;
  const int _number;
  std::string _unread;
};

// "HTTP/1.1 200 OK" and so on, with the headers and the empty line.
std::string responseHead(int status, const HeaderList& headers);
const char* reasonOf(int status);

}  // namespace test_support
