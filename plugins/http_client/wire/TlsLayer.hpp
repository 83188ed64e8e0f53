// TLS over another layer, by OpenSSL. Its bytes pass through a BIO of our own, which sends and
// receives by the layer below: OpenSSL's own would send with write(), which raises SIGPIPE.
//
// A failure to send is kept from OpenSSL, which would else refuse to receive what the server has
// sent before it closed.
#pragma once

#include <exception>
#include <memory>
#include <string>

#include <Poco/Net/Context.h>
#include <openssl/ssl.h>

#include "plugins/http_client/wire/Layer.hpp"
#include "plugins/http_client/wire/TimeLimits.hpp"

namespace connectivity::plugins {

class TlsLayer final : public Layer {
 public:
  // `serverName` is announced to the server where it is a name; the context says what is verified.
  TlsLayer(std::unique_ptr<Layer> below, Poco::Net::Context::Ptr context, std::string serverName,
           TimeLimits& limits);
  ~TlsLayer() override;

  // The whole handshake takes at most the time-out. Errors, beside those of the layer below:
  // Poco::TimeoutException "The TLS handshake timed out"; Poco::Net::SSLException, for a
  // certificate that is refused with the text "certificate verify failed: <reason>", where the
  // reason is OpenSSL's ("certificate has expired", "hostname mismatch").
  void connect() override;
  std::size_t send(std::span<const std::string_view> pieces) override;
  // A connection that ended without saying so (no close_notify) is a
  // Poco::Net::SSLConnectionUnexpectedlyClosedException.
  std::optional<std::size_t> receive(char* data, std::size_t size, Wait wait) override;
  void awaitEither() override { _below->awaitEither(); }
  void awaitRoom() override { _below->awaitRoom(); }
  bool quiet() noexcept override;
  // Says goodbye first (close_notify), without waiting.
  void close() noexcept override;

 private:
  struct FreeOpenSsl {
    void operator()(SSL* ssl) const noexcept { SSL_free(ssl); }
    void operator()(BIO_METHOD* method) const noexcept { BIO_meth_free(method); }
  };

  static int bioWrite(BIO* bio, const char* data, int size);
  static int bioRead(BIO* bio, char* data, int size);
  static long bioControl(BIO* bio, int command, long number, void* pointer);
  void prepare();
  void handshake();
  [[noreturn]] void handshakeFailed();
  [[noreturn]] void failed();

  const std::unique_ptr<Layer> _below;
  const Poco::Net::Context::Ptr _context;
  const std::string _serverName;
  TimeLimits& _limits;
  const std::unique_ptr<BIO_METHOD, FreeOpenSsl> _bioMethod;
  std::unique_ptr<SSL, FreeOpenSsl> _ssl;
  std::string _gathered;  // small pieces, to be one record
  Wait _wait = Wait::No;  // for the receives of the layer below
  bool _ended = false;    // the layer below is at the end of its stream
  std::exception_ptr _failure;
  bool _sayGoodbye = false;  // the handshake is done and nothing has failed since
};

}  // namespace connectivity::plugins
