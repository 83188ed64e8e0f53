#include "plugins/http_client/wire/TlsLayer.hpp"

#include <utility>

#include <Poco/Exception.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/Net/SSLException.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/x509_vfy.h>

namespace connectivity::plugins {

namespace {

using Poco::Net::SSLException;

// What one record holds at the most.
constexpr std::size_t recordBytes = 16384;

// OpenSSL's words for the oldest error of this thread's queue, which is cleared.
std::string takeReason() {
  const char* reason = ERR_reason_error_string(ERR_peek_error());
  std::string text = reason == nullptr ? "unknown error" : reason;
  ERR_clear_error();
  return text;
}

}  // namespace

TlsLayer::TlsLayer(std::unique_ptr<Layer> below, Poco::Net::Context::Ptr context,
                   std::string serverName, TimeLimits& limits)
    : _below(std::move(below)),
      _context(std::move(context)),
      _serverName(std::move(serverName)),
      _limits(limits),
      _bioMethod(BIO_meth_new(BIO_TYPE_SOURCE_SINK, "http client layer")) {
  BIO_METHOD* const method = _bioMethod.get();
  if (method == nullptr) throw SSLException("Cannot prepare a TLS connection: " + takeReason());
  BIO_meth_set_write(method, &TlsLayer::bioWrite);
  BIO_meth_set_read(method, &TlsLayer::bioRead);
  BIO_meth_set_ctrl(method, &TlsLayer::bioControl);
}

TlsLayer::~TlsLayer() { close(); }

void TlsLayer::connect() {
  _below->connect();
  prepare();
  handshake();
}

void TlsLayer::prepare() {
  _ssl.reset(SSL_new(_context->sslContext()));
  BIO* const bio = BIO_new(_bioMethod.get());
  if (bio == nullptr || !_ssl) {
    BIO_free(bio);
    throw SSLException("Cannot prepare a TLS connection: " + takeReason());
  }
  BIO_set_data(bio, this);
  BIO_set_init(bio, 1);
  SSL_set_bio(_ssl.get(), bio, bio);
  SSL_set_connect_state(_ssl.get());
  SSL_set_read_ahead(_ssl.get(), 1);  // a record's header and its data in one receive
  SSL_set_mode(_ssl.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  _ended = false;
  _failure = nullptr;
  Poco::Net::IPAddress address;
  if (!_serverName.empty() && !Poco::Net::IPAddress::tryParse(_serverName, address)) {
    // SSL_set_tlsext_host_name, without the casts of its macro; OpenSSL copies the name.
    SSL_ctrl(_ssl.get(), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
             const_cast<char*>(_serverName.c_str()));  // NOLINT(*-const-cast): only read
  }
}

int TlsLayer::bioWrite(BIO* bio, const char* data, int size) {
  auto* const self = static_cast<TlsLayer*>(BIO_get_data(bio));
  BIO_clear_retry_flags(bio);
  try {
    const std::string_view piece(data, static_cast<std::size_t>(size));
    const std::size_t sent = self->_below->send({&piece, 1});
    if (sent > 0) return static_cast<int>(sent);
  } catch (...) {
    self->_failure = std::current_exception();
  }
  // Also where it failed: OpenSSL is to go on receiving.
  BIO_set_flags(bio, BIO_FLAGS_WRITE | BIO_FLAGS_SHOULD_RETRY);
  return -1;
}

int TlsLayer::bioRead(BIO* bio, char* data, int size) {
  auto* const self = static_cast<TlsLayer*>(BIO_get_data(bio));
  BIO_clear_retry_flags(bio);
  try {
    const auto count = self->_below->receive(data, static_cast<std::size_t>(size), self->_wait);
    if (count) {
      self->_ended = *count == 0;
      return static_cast<int>(*count);
    }
    BIO_set_flags(bio, BIO_FLAGS_READ | BIO_FLAGS_SHOULD_RETRY);
  } catch (...) {
    self->_failure = std::current_exception();
  }
  return -1;
}

long TlsLayer::bioControl(BIO* bio, int command, long /*number*/, void* /*pointer*/) {
  if (command == BIO_CTRL_FLUSH) return 1;
  if (command == BIO_CTRL_EOF) return static_cast<const TlsLayer*>(BIO_get_data(bio))->_ended;
  return 0;
}

void TlsLayer::handshake() {
  try {
    const TimeLimits::Shortened whole(_limits, _limits.timeout());
    _wait = Wait::Yes;
    for (;;) {
      ERR_clear_error();
      const int result = SSL_do_handshake(_ssl.get());
      if (result == 1) break;
      const int error = SSL_get_error(_ssl.get(), result);
      if (_failure || error != SSL_ERROR_WANT_WRITE) handshakeFailed();
      _below->awaitEither();
    }
  } catch (const DeadlineExceeded&) {
    _limits.check();
    throw Poco::TimeoutException("The TLS handshake timed out");
  } catch (const Poco::TimeoutException&) {
    throw Poco::TimeoutException("The TLS handshake timed out");
  }
  _sayGoodbye = true;
}

void TlsLayer::handshakeFailed() {
  const long verdict = SSL_get_verify_result(_ssl.get());
  const bool refused = verdict != X509_V_OK && SSL_get_verify_mode(_ssl.get()) != SSL_VERIFY_NONE;
  if (refused) {
    ERR_clear_error();
    throw SSLException(std::string("certificate verify failed: ") +
                       X509_verify_cert_error_string(verdict));
  }
  if (_failure) {
    ERR_clear_error();
    std::rethrow_exception(std::exchange(_failure, nullptr));
  }
  throw SSLException("TLS handshake failed: " + takeReason());
}

std::size_t TlsLayer::send(std::span<const std::string_view> pieces) {
  std::string_view bytes = pieces.front();
  if (pieces.size() > 1 && bytes.size() < recordBytes) {
    _gathered.clear();
    for (const std::string_view piece : pieces) {
      _gathered.append(piece.substr(0, recordBytes - _gathered.size()));
      if (_gathered.size() == recordBytes) break;
    }
    bytes = _gathered;
  }
  ERR_clear_error();
  _wait = Wait::No;
  std::size_t written = 0;
  const int result = SSL_write_ex(_ssl.get(), bytes.data(), bytes.size(), &written);
  if (result == 1) return written;
  const int error = SSL_get_error(_ssl.get(), result);
  const bool wants = error == SSL_ERROR_WANT_WRITE || error == SSL_ERROR_WANT_READ;
  if (wants && !_failure) return 0;
  failed();
}

std::optional<std::size_t> TlsLayer::receive(char* data, std::size_t size, Wait wait) {
  ERR_clear_error();
  _wait = wait;
  for (;;) {
    std::size_t count = 0;
    const int result = SSL_read_ex(_ssl.get(), data, size, &count);
    if (result == 1) return count;
    const int error = SSL_get_error(_ssl.get(), result);
    if (error == SSL_ERROR_ZERO_RETURN) return 0;
    if (_failure || (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE)) failed();
    if (wait == Wait::No) return std::nullopt;
    if (error == SSL_ERROR_WANT_WRITE) _below->awaitEither();
  }
}

void TlsLayer::failed() {
  _sayGoodbye = false;
  if (_failure) {
    ERR_clear_error();
    std::rethrow_exception(std::exchange(_failure, nullptr));
  }
  const bool unannounced = ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING;
  const std::string reason = takeReason();
  if (unannounced) {
    throw Poco::Net::SSLConnectionUnexpectedlyClosedException(
        "The server closed the connection without ending TLS");
  }
  throw SSLException(reason);
}

// What is readable may belong to TLS alone (a session ticket, a new key): OpenSSL looks at it.
bool TlsLayer::quiet() noexcept {
  if (SSL_has_pending(_ssl.get()) == 0 && _below->quiet()) return true;
  ERR_clear_error();
  _wait = Wait::No;
  char byte = 0;
  const int result = SSL_peek(_ssl.get(), &byte, 1);
  const bool nothing = result <= 0 && SSL_get_error(_ssl.get(), result) == SSL_ERROR_WANT_READ;
  ERR_clear_error();
  _sayGoodbye = _sayGoodbye && !_failure;
  return nothing && !_failure;
}

void TlsLayer::close() noexcept {
  if (_sayGoodbye) {
    _wait = Wait::No;
    SSL_shutdown(_ssl.get());
    ERR_clear_error();
  }
  _sayGoodbye = false;
  _ssl.reset();
  _below->close();
}

}  // namespace connectivity::plugins
