// TLS over a connected socket, by OpenSSL. Its bytes pass through a BIO of our own, because
// OpenSSL's sends with write(), which raises SIGPIPE.
#include <algorithm>
#include <cerrno>
#include <limits>
#include <poll.h>
#include <string>
#include <sys/socket.h>

#include <Poco/Exception.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/Net/SSLException.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include "plugins/http_client/wire/Connection.hpp"
#include "plugins/http_client/wire/SocketCalls.hpp"

namespace connectivity::plugins {

namespace {

using Poco::Net::SSLException;

struct FreeOpenSsl {
  void operator()(SSL* ssl) const noexcept { SSL_free(ssl); }
  void operator()(BIO_METHOD* method) const noexcept { BIO_meth_free(method); }
};

// OpenSSL's words for the oldest error of this thread's queue, which is cleared.
std::string takeReason() {
  const char* reason = ERR_reason_error_string(ERR_peek_error());
  std::string text = reason == nullptr ? "unknown error" : reason;
  ERR_clear_error();
  return text;
}

class TlsConnection final : public Connection {
 public:
  TlsConnection(const Poco::Net::StreamSocket& socket, const Poco::Net::Context::Ptr& context,
                const std::string& serverName);
  ~TlsConnection() override;

  void handshake(Deadline deadline);
  void send(std::string_view first, std::string_view second) override;
  std::size_t receive(char* data, std::size_t size) override;
  bool quiet() noexcept override;

 private:
  static int bioWrite(BIO* bio, const char* data, int size);
  static int bioRead(BIO* bio, char* data, int size);
  static long bioControl(BIO* bio, int command, long number, void* pointer);
  BIO* newBio();
  int finish(BIO* bio, ssize_t result, int retryFlag);

  [[noreturn]] void handshakeFailed(int error);
  // Throws for the result of SSL_read or SSL_write; `onWait` for a time-out.
  [[noreturn]] void failed(int error, void (*onWait)(int));

  Poco::Net::StreamSocket _socket;
  const Poco::Net::Context::Ptr _context;
  const std::unique_ptr<BIO_METHOD, FreeOpenSsl> _bioMethod;
  std::unique_ptr<SSL, FreeOpenSsl> _ssl;
  bool _socketEnded = false;
  int _socketError = 0;
  bool _sayGoodbye = false;  // the handshake is done and nothing has failed since
};

TlsConnection::TlsConnection(const Poco::Net::StreamSocket& socket,
                             const Poco::Net::Context::Ptr& context, const std::string& serverName)
    : _socket(socket),
      _context(context),
      _bioMethod(BIO_meth_new(BIO_TYPE_SOURCE_SINK, "http client socket")),
      _ssl(SSL_new(context->sslContext())) {
  BIO* const bio = newBio();
  if (bio == nullptr || !_ssl) {
    BIO_free(bio);
    throw SSLException("Cannot prepare a TLS connection: " + takeReason());
  }
  SSL_set_bio(_ssl.get(), bio, bio);
  SSL_set_connect_state(_ssl.get());
  SSL_set_read_ahead(_ssl.get(), 1);  // a record's header and its data in one receive
  Poco::Net::IPAddress address;
  if (!serverName.empty() && !Poco::Net::IPAddress::tryParse(serverName, address)) {
    // SSL_set_tlsext_host_name, without the casts of its macro; OpenSSL copies the name.
    SSL_ctrl(_ssl.get(), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
             const_cast<char*>(serverName.c_str()));  // NOLINT(*-const-cast): only read
  }
}

TlsConnection::~TlsConnection() {
  if (!_sayGoodbye || descriptor(_socket) < 0) return;
  try {
    setBlocking(descriptor(_socket), false);
    SSL_shutdown(_ssl.get());
  } catch (const Poco::Exception&) {  // NOLINT(bugprone-empty-catch): the socket is closed next
  }
  ERR_clear_error();
}

BIO* TlsConnection::newBio() {
  BIO_METHOD* const method = _bioMethod.get();
  if (method == nullptr) return nullptr;
  BIO_meth_set_write(method, &TlsConnection::bioWrite);
  BIO_meth_set_read(method, &TlsConnection::bioRead);
  BIO_meth_set_ctrl(method, &TlsConnection::bioControl);
  BIO* const bio = BIO_new(method);
  if (bio == nullptr) return nullptr;
  BIO_set_data(bio, this);
  BIO_set_init(bio, 1);
  return bio;
}

int TlsConnection::bioWrite(BIO* bio, const char* data, int size) {
  auto* const self = static_cast<TlsConnection*>(BIO_get_data(bio));
  ssize_t sent = 0;
  do {
    sent = ::send(descriptor(self->_socket), data, static_cast<std::size_t>(size), MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return self->finish(bio, sent, BIO_FLAGS_WRITE);
}

int TlsConnection::bioRead(BIO* bio, char* data, int size) {
  auto* const self = static_cast<TlsConnection*>(BIO_get_data(bio));
  ssize_t count = 0;
  do {
    count = ::recv(descriptor(self->_socket), data, static_cast<std::size_t>(size), 0);
  } while (count < 0 && errno == EINTR);
  self->_socketEnded = count == 0;
  return self->finish(bio, count, BIO_FLAGS_READ);
}

int TlsConnection::finish(BIO* bio, ssize_t result, int retryFlag) {
  BIO_clear_retry_flags(bio);
  if (result >= 0) return static_cast<int>(result);
  _socketError = errno;
  if (_socketError == EAGAIN || _socketError == EWOULDBLOCK) {
    BIO_set_flags(bio, retryFlag | BIO_FLAGS_SHOULD_RETRY);
  }
  return -1;
}

long TlsConnection::bioControl(BIO* bio, int command, long /*number*/, void* /*pointer*/) {
  if (command == BIO_CTRL_FLUSH) return 1;
  if (command == BIO_CTRL_EOF) {
    return static_cast<const TlsConnection*>(BIO_get_data(bio))->_socketEnded ? 1 : 0;
  }
  return 0;
}

void TlsConnection::handshake(Deadline deadline) {
  const int fd = descriptor(_socket);
  setBlocking(fd, false);
  for (;;) {
    ERR_clear_error();
    const int result = SSL_do_handshake(_ssl.get());
    if (result == 1) break;
    const int error = SSL_get_error(_ssl.get(), result);
    if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) handshakeFailed(error);
    const short event = error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
    if (!awaitSocket(fd, event, deadline)) {
      throw Poco::TimeoutException("The TLS handshake timed out");
    }
  }
  setBlocking(fd, true);
  _sayGoodbye = true;
}

void TlsConnection::handshakeFailed(int error) {
  const long verdict = SSL_get_verify_result(_ssl.get());
  const bool refused = verdict != X509_V_OK && SSL_get_verify_mode(_ssl.get()) != SSL_VERIFY_NONE;
  if (refused) {
    ERR_clear_error();
    throw SSLException(std::string("certificate verify failed: ") +
                       X509_verify_cert_error_string(verdict));
  }
  if (error == SSL_ERROR_SYSCALL && _socketError != 0) {
    socketFailure(_socketError, "TLS handshake");
  }
  throw SSLException("TLS handshake failed: " + takeReason());
}

void TlsConnection::send(std::string_view first, std::string_view second) {
  for (const std::string_view piece : {first, second}) {
    if (piece.empty()) continue;
    ERR_clear_error();
    std::size_t written = 0;
    const int result = SSL_write_ex(_ssl.get(), piece.data(), piece.size(), &written);
    if (result != 1) failed(SSL_get_error(_ssl.get(), result), &sendFailure);
  }
}

std::size_t TlsConnection::receive(char* data, std::size_t size) {
  ERR_clear_error();
  std::size_t count = 0;
  const int result = SSL_read_ex(_ssl.get(), data, size, &count);
  if (result == 1) return count;
  const int error = SSL_get_error(_ssl.get(), result);
  if (error == SSL_ERROR_ZERO_RETURN) return 0;
  failed(error, &receiveFailure);
}

void TlsConnection::failed(int error, void (*onWait)(int)) {
  _sayGoodbye = false;
  if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) onWait(EAGAIN);
  if (error == SSL_ERROR_SYSCALL && _socketError != 0) onWait(_socketError);
  const bool unannounced = ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING;
  const std::string reason = takeReason();
  if (unannounced) {
    throw Poco::Net::SSLConnectionUnexpectedlyClosedException(
        "The server closed the connection without ending TLS");
  }
  throw SSLException(reason);
}

// What is readable may belong to TLS alone (a session ticket, a new key): OpenSSL looks at it.
bool TlsConnection::quiet() noexcept {
  const int fd = descriptor(_socket);
  if (!isReadable(fd) && SSL_has_pending(_ssl.get()) == 0) return true;
  try {
    setBlocking(fd, false);
    ERR_clear_error();
    char byte = 0;
    const int result = SSL_peek(_ssl.get(), &byte, 1);
    const bool nothing = result <= 0 && SSL_get_error(_ssl.get(), result) == SSL_ERROR_WANT_READ;
    ERR_clear_error();
    setBlocking(fd, true);
    return nothing;
  } catch (const Poco::Exception&) {
    return false;
  }
}

}  // namespace

std::unique_ptr<Connection> tlsConnection(const Poco::Net::StreamSocket& socket,
                                          const Poco::Net::Context::Ptr& context,
                                          const std::string& serverName,
                                          const Poco::Timespan& timeout) {
  auto connection = std::make_unique<TlsConnection>(socket, context, serverName);
  connection->handshake(deadlineAfter(timeout));
  return connection;
}

}  // namespace connectivity::plugins
