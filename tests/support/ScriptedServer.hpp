// An HTTP server for tests, on 127.0.0.1 and a port that the system picks, plain or over TLS. It
// does exactly what a script says, byte by byte where a test wants that, and records every request
// and connection.
//
// Each accepted connection runs its script on a thread of its own; when the script returns, the
// connection is closed. Three ways to script:
//
//   ScriptedServer server;                                  // answers by path; see answer()
//   server.answer("/x", {200, {{"X-A", "b"}}, "body"});
//
//   ScriptedServer server([](Connection& connection) {      // one script for every connection
//     connection.readRequest();
//     connection.send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nshort");
//   });
//
//   ScriptedServer server({first, second});                 // a script for each; the last repeats
//
// An exception out of a script fails the test. The destructor ends all connections and joins all
// threads. Every member function may be called from any thread.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Certificates.hpp"
#include "tests/support/Descriptor.hpp"
#include "tests/support/Event.hpp"
#include "tests/support/Wire.hpp"

namespace test_support {

enum class TlsVersion { Any, Only12, Only13 };

struct TlsOptions {
  CertificateFiles certificate;
  TlsVersion version = TlsVersion::Any;
  // Set: the handshake starts when this event is set. Borrowed.
  const Event* handshakeAfter = nullptr;
  // The client's first bytes are read and never answered.
  bool neverAnswerHandshake = false;
  // A certificate is asked of the client; whichever it shows, or none, is taken.
  bool askForCertificate = false;
};

// What a client told in a handshake that succeeded.
struct ClientHello {
  std::string serverName;   // empty: it named no server
  std::string certificate;  // the common name on its certificate; empty: it showed none
};

enum class Loopback { V4, V6 };

struct CannedResponse {
  int status = 200;
  HeaderList headers;
  std::string body;
};

class ScriptedServer {
 public:
  using Script = std::function<void(Connection&)>;

  // Answers by path.
  ScriptedServer();
  explicit ScriptedServer(const TlsOptions& tls);
  explicit ScriptedServer(Script script, std::optional<TlsOptions> tls = std::nullopt);
  // V6 is ::1 alone; std::system_error where the machine has no IPv6.
  explicit ScriptedServer(std::vector<Script> scripts, std::optional<TlsOptions> tls = std::nullopt,
                          Loopback loopback = Loopback::V4);
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  int port() const noexcept { return _port; }

  // Adds a response to the queue of a path (without query). The last of a queue repeats; a path
  // without a queue gets 404. For servers that answer by path, and for answerByPath().
  void answer(const std::string& path, CannedResponse response);
  // What a server without script does with a connection, for use inside scripts: answers requests
  // until the peer closes or has asked for "Connection: close".
  void answerByPath(Connection& connection);

  std::vector<RecordedRequest> requests() const;
  RecordedRequest request(std::size_t index) const { return requests().at(index); }
  std::size_t requestCount() const;
  // Connections accepted so far, those with a failed handshake too.
  std::size_t connectionCount() const;
  std::size_t handshakeFailures() const;
  // In the order of the handshakes' ends.
  std::vector<ClientHello> clientHellos() const;
  // Wait until there are that many. TimedOut.
  void waitForRequests(std::size_t howMany) const;
  void waitForConnections(std::size_t howMany) const;
  // Waits until that many connections' scripts have returned and the connections are closed.
  void waitForEndedConnections(std::size_t howMany) const;

  // Ends everything, as the destructor does; nobody listens on the port afterwards.
  void stop();

 private:
  class SocketChannel;
  class TlsChannel;
  struct TlsContext;
  struct Live {
    std::unique_ptr<SocketChannel> channel;
    std::thread thread;
    bool ended = false;  // guarded by _mutex
  };

  void acceptLoop();
  void reapEnded();
  void startConnection(Descriptor socket);
  void runConnection(Live& live, int number);
  Script scriptFor(int number) const;
  CannedResponse takeAnswer(const std::string& path);
  void record(const RecordedRequest& request);
  void record(ClientHello hello);
  template <typename Condition>
  void waitUntil(const std::string& what, Condition condition) const;

  const std::vector<Script> _scripts;
  std::unique_ptr<TlsContext> _tls;  // null: plain
  Descriptor _listener;
  Descriptor _wake;
  const int _port;

  mutable std::mutex _mutex;
  mutable std::condition_variable _changed;
  // Below: guarded by _mutex.
  std::vector<RecordedRequest> _requests;
  std::vector<ClientHello> _clientHellos;
  std::map<std::string, std::deque<CannedResponse>> _answers;
  std::list<Live> _live;
  std::size_t _accepted = 0;
  std::size_t _ended = 0;
  std::size_t _handshakeFailures = 0;
  bool _stopping = false;

  std::thread _acceptor;  // last: it uses all of the above
};

}  // namespace test_support
