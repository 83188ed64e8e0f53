#include "tests/support/ScriptedServer.hpp"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <exception>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>

#include <climits>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

namespace test_support {

// --- Channels ----------------------------------------------------------------------------------

class ScriptedServer::SocketChannel : public Channel {
 public:
  explicit SocketChannel(Descriptor socket) : _socket(std::move(socket)) {}

  // Before the first byte. False where the connection cannot be used.
  virtual bool open() { return true; }
  // What the client told when the connection was opened; none without TLS.
  virtual std::optional<ClientHello> clientHello() const { return std::nullopt; }

  std::size_t receive(char* into, std::size_t room) override {
    for (;;) {
      const auto got = ::recv(_socket.get(), into, room, 0);
      if (got >= 0) return static_cast<std::size_t>(got);
      if (errno != EINTR) return 0;
    }
  }
  bool send(std::string_view bytes) override { return writeAll(_socket.get(), bytes); }
  void close() override { drop(); }
  void drop() override {
    if (!_socket.valid()) return;
    ::shutdown(_socket.get(), SHUT_WR);
    discardReceived();
    closeSocket();
  }
  void reset() override {
    awaitAcknowledged();
    const linger now{1, 0};
    ::setsockopt(_socket.get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
    closeSocket();
  }
  void halfClose() override { ::shutdown(_socket.get(), SHUT_WR); }
  int socket() const override { return _socket.get(); }

  // Ends whatever the connection's thread waits for on the socket. Called by any thread.
  void interrupt() {
    const std::lock_guard lock(_closing);
    if (_socket.valid()) ::shutdown(_socket.get(), SHUT_RDWR);
  }

 private:
  // A reset drops what the kernel has not sent yet; the peer has what was acknowledged. A peer that
  // does not read does not get all.
  void awaitAcknowledged() const {
    constexpr int mostMilliseconds = 500;
    for (int passed = 0; passed < mostMilliseconds; ++passed) {
      int bytes = 0;
      if (::ioctl(_socket.get(), SIOCOUTQ, &bytes) != 0 || bytes == 0) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  // Closing a socket that holds unread bytes would reset it, and the peer might lose the response.
  void discardReceived() {
    std::array<char, 16384> piece{};
    while (::recv(_socket.get(), piece.data(), piece.size(), MSG_DONTWAIT) > 0) {
    }
  }
  void closeSocket() {
    const std::lock_guard lock(_closing);
    _socket.reset();
  }

  std::mutex _closing;
  Descriptor _socket;  // replaced under _closing, by the connection's thread only
};

struct ScriptedServer::TlsContext {
  explicit TlsContext(TlsOptions given) : options(std::move(given)), context(make()) {
    const auto* const certificate = options.certificate.certificate.c_str();
    const auto* const key = options.certificate.key.c_str();
    if (SSL_CTX_use_certificate_chain_file(context.get(), certificate) != 1 ||
        SSL_CTX_use_PrivateKey_file(context.get(), key, SSL_FILETYPE_PEM) != 1) {
      throw std::runtime_error("The scripted server cannot use its certificate");
    }
    limitVersion();
    if (options.askForCertificate) askForCertificate();
  }

  void askForCertificate() {
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, [](int, X509_STORE_CTX*) { return 1; });
    // Without an id for its sessions, a server that asks for certificates can resume none.
    const std::string_view id = "test";
    SSL_CTX_set_session_id_context(context.get(), reinterpret_cast<const unsigned char*>(id.data()),
                                   static_cast<unsigned>(id.size()));
  }

  void limitVersion() {
    if (options.version == TlsVersion::Any) return;
    const int version = options.version == TlsVersion::Only12 ? TLS1_2_VERSION : TLS1_3_VERSION;
    SSL_CTX_set_min_proto_version(context.get(), version);
    SSL_CTX_set_max_proto_version(context.get(), version);
  }

  struct Free {
    void operator()(SSL_CTX* object) const noexcept { SSL_CTX_free(object); }
  };
  using Pointer = std::unique_ptr<SSL_CTX, Free>;
  static Pointer make() { return Pointer(SSL_CTX_new(TLS_server_method())); }

  const TlsOptions options;
  const Pointer context;
};

class ScriptedServer::TlsChannel final : public SocketChannel {
 public:
  TlsChannel(Descriptor socket, const TlsContext& tls)
      : SocketChannel(std::move(socket)), _options(tls.options), _ssl(SSL_new(tls.context.get())) {
    SSL_set_fd(_ssl.get(), SocketChannel::socket());
  }

  bool open() override {
    if (_options.handshakeAfter != nullptr) _options.handshakeAfter->wait();
    if (_options.neverAnswerHandshake) {
      std::array<char, 4096> ignored{};
      while (SocketChannel::receive(ignored.data(), ignored.size()) > 0) {
      }
      return false;
    }
    ERR_clear_error();
    _open = SSL_accept(_ssl.get()) == 1;
    return _open;
  }
  std::optional<ClientHello> clientHello() const override {
    const char* const name = SSL_get_servername(_ssl.get(), TLSEXT_NAMETYPE_host_name);
    ClientHello hello{name == nullptr ? "" : name, ""};
    if (const X509* const shown = SSL_get0_peer_certificate(_ssl.get()); shown != nullptr) {
      std::array<char, 256> text{};
      X509_NAME_get_text_by_NID(X509_get_subject_name(shown), NID_commonName, text.data(),
                                static_cast<int>(text.size()));
      hello.certificate = text.data();
    }
    return hello;
  }
  std::size_t receive(char* into, std::size_t room) override {
    if (!hasSocket()) return 0;
    ERR_clear_error();
    const auto limit = room > INT_MAX ? INT_MAX : static_cast<int>(room);
    const int got = SSL_read(_ssl.get(), into, limit);
    return got > 0 ? static_cast<std::size_t>(got) : 0;
  }
  bool send(std::string_view bytes) override {
    if (!hasSocket()) return false;
    ERR_clear_error();
    std::size_t sent = 0;
    return bytes.empty() || SSL_write_ex(_ssl.get(), bytes.data(), bytes.size(), &sent) == 1;
  }
  void close() override {
    if (_open && hasSocket()) SSL_shutdown(_ssl.get());
    _open = false;
    drop();
  }
  void halfClose() override {
    SSL_shutdown(_ssl.get());
    _open = false;  // a second one would wait for the peer's
    SocketChannel::halfClose();
  }

 private:
  struct Free {
    void operator()(SSL* object) const noexcept { SSL_free(object); }
  };
  // OpenSSL keeps the number, which is another connection's soon after it was closed.
  bool hasSocket() const { return SocketChannel::socket() >= 0; }

  const TlsOptions& _options;
  const std::unique_ptr<SSL, Free> _ssl;
  bool _open = false;
};

// --- The server --------------------------------------------------------------------------------

ScriptedServer::ScriptedServer()
    : ScriptedServer([this](Connection& connection) { answerByPath(connection); }) {}

ScriptedServer::ScriptedServer(const TlsOptions& tls)
    : ScriptedServer([this](Connection& connection) { answerByPath(connection); }, tls) {}

ScriptedServer::ScriptedServer(Script script, std::optional<TlsOptions> tls)
    : ScriptedServer(std::vector<Script>{std::move(script)}, std::move(tls)) {}

ScriptedServer::ScriptedServer(std::vector<Script> scripts, std::optional<TlsOptions> tls,
                               Loopback loopback)
    : _scripts(std::move(scripts)),
      _tls(tls.has_value() ? std::make_unique<TlsContext>(*std::move(tls)) : nullptr),
      _listener(loopback == Loopback::V4 ? listenOnLoopback() : listenOnLoopback6()),
      _wake(::eventfd(0, EFD_CLOEXEC)),
      _port(localPort(_listener)),
      _acceptor([this] { acceptLoop(); }) {}

ScriptedServer::~ScriptedServer() { stop(); }

void ScriptedServer::stop() {
  {
    const std::lock_guard lock(_mutex);
    if (_stopping) return;
    _stopping = true;
  }
  const std::uint64_t one = 1;
  if (::write(_wake.get(), &one, sizeof one) != sizeof one) std::terminate();
  _acceptor.join();
  _listener.reset();
  // The acceptor is gone: nobody adds to the list.
  for (auto& live : _live) live.channel->interrupt();
  for (auto& live : _live) live.thread.join();
}

void ScriptedServer::acceptLoop() {
  blockSigpipe();
  std::array<pollfd, 2> sources{pollfd{_listener.get(), POLLIN, 0}, pollfd{_wake.get(), POLLIN, 0}};
  for (;;) {
    if (::poll(sources.data(), sources.size(), -1) < 0) continue;
    if (sources[1].revents != 0) return;
    Descriptor socket(::accept4(_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (socket.valid()) startConnection(std::move(socket));
  }
}

void ScriptedServer::startConnection(Descriptor socket) {
  const int on = 1;
  ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  const std::lock_guard lock(_mutex);
  const int number = static_cast<int>(++_accepted);
  auto channel = _tls == nullptr ? std::make_unique<SocketChannel>(std::move(socket))
                                 : std::make_unique<TlsChannel>(std::move(socket), *_tls);
  reapEnded();
  auto& live = _live.emplace_back(Live{std::move(channel), {}});
  live.thread = std::thread([this, &live, number] { runConnection(live, number); });
  _changed.notify_all();
}

// A thread that has ended keeps its stack until it is joined.
void ScriptedServer::reapEnded() {
  _live.remove_if([](Live& live) {
    if (live.ended) live.thread.join();
    return live.ended;
  });
}

void ScriptedServer::runConnection(Live& live, int number) {
  SocketChannel& channel = *live.channel;
  blockSigpipe();
  bool opened = false;
  try {
    opened = channel.open();
    if (opened) {
      if (auto hello = channel.clientHello()) record(*std::move(hello));
      Connection connection(channel, number, [this](const auto& request) { record(request); });
      scriptFor(number)(connection);
    }
  } catch (const std::exception& failure) {
    const std::lock_guard lock(_mutex);
    if (!_stopping) ADD_FAILURE() << "Connection " << number << "'s script: " << failure.what();
  }
  channel.close();
  const std::lock_guard lock(_mutex);
  ++_ended;
  live.ended = true;
  if (!opened) ++_handshakeFailures;
  _changed.notify_all();
}

ScriptedServer::Script ScriptedServer::scriptFor(int number) const {
  const auto index = static_cast<std::size_t>(number) - 1;
  return index < _scripts.size() ? _scripts[index] : _scripts.back();
}

void ScriptedServer::record(const RecordedRequest& request) {
  const std::lock_guard lock(_mutex);
  _requests.push_back(request);
  _changed.notify_all();
}

void ScriptedServer::record(ClientHello hello) {
  const std::lock_guard lock(_mutex);
  _clientHellos.push_back(std::move(hello));
}

// --- Answers by path ---------------------------------------------------------------------------

void ScriptedServer::answer(const std::string& path, CannedResponse response) {
  const std::lock_guard lock(_mutex);
  _answers[path].push_back(std::move(response));
}

CannedResponse ScriptedServer::takeAnswer(const std::string& path) {
  const std::lock_guard lock(_mutex);
  const auto found = _answers.find(path);
  if (found == _answers.end()) return {404, {}, "Nothing is scripted for " + path};
  auto& queue = found->second;
  auto response = queue.front();
  if (queue.size() > 1) queue.pop_front();
  return response;
}

namespace {

bool asksForClose(const RecordedRequest& request) {
  const auto value = request.header("connection");
  return value.has_value() && ::strcasecmp(value->c_str(), "close") == 0;
}

}  // namespace

void ScriptedServer::answerByPath(Connection& connection) {
  while (const auto request = connection.readRequest()) {
    auto response = takeAnswer(request->target.substr(0, request->target.find('?')));
    if (request->method == "HEAD") {
      response.headers.emplace_back("Content-Length", std::to_string(response.body.size()));
      response.body.clear();
    }
    connection.sendResponse(response.status, response.headers, response.body);
    if (asksForClose(*request)) return;
  }
}

// --- What was seen -----------------------------------------------------------------------------

std::vector<RecordedRequest> ScriptedServer::requests() const {
  const std::lock_guard lock(_mutex);
  return _requests;
}

std::size_t ScriptedServer::requestCount() const {
  const std::lock_guard lock(_mutex);
  return _requests.size();
}

std::size_t ScriptedServer::connectionCount() const {
  const std::lock_guard lock(_mutex);
  return _accepted;
}

std::size_t ScriptedServer::handshakeFailures() const {
  const std::lock_guard lock(_mutex);
  return _handshakeFailures;
}

std::vector<ClientHello> ScriptedServer::clientHellos() const {
  const std::lock_guard lock(_mutex);
  return _clientHellos;
}

template <typename Condition>
void ScriptedServer::waitUntil(const std::string& what, Condition condition) const {
  std::unique_lock lock(_mutex);
  if (!_changed.wait_for(lock, patience, condition)) throw TimedOut(what);
}

void ScriptedServer::waitForRequests(std::size_t howMany) const {
  waitUntil(std::to_string(howMany) + " requests", [&] { return _requests.size() >= howMany; });
}

void ScriptedServer::waitForConnections(std::size_t howMany) const {
  waitUntil(std::to_string(howMany) + " connections", [&] { return _accepted >= howMany; });
}

void ScriptedServer::waitForEndedConnections(std::size_t howMany) const {
  waitUntil(std::to_string(howMany) + " ended connections", [&] { return _ended >= howMany; });
}

}  // namespace test_support
