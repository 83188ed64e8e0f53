// TLS over a connection in memory, for the tests of the layer.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/ssl.h>

#include "plugins/http_client/wire/TlsContexts.hpp"
#include "plugins/http_client/wire/TlsLayer.hpp"
#include "tests/support/Certificates.hpp"

namespace connectivity::plugins {

inline constexpr std::size_t endless = 1'000'000'000;

// The server's end of a connection, whose bytes are in memory.
class TlsServerInMemory {
 public:
  TlsServerInMemory(const test_support::CertificateFiles& own, int version)
      : _context(SSL_CTX_new(TLS_server_method())) {
    SSL_CTX_use_certificate_chain_file(_context, own.certificate.c_str());
    SSL_CTX_use_PrivateKey_file(_context, own.key.c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_set_min_proto_version(_context, version);
    SSL_CTX_set_max_proto_version(_context, version);
    accept();
  }
  ~TlsServerInMemory() {
    SSL_free(_ssl);
    SSL_CTX_free(_context);
  }
  TlsServerInMemory(const TlsServerInMemory&) = delete;
  TlsServerInMemory& operator=(const TlsServerInMemory&) = delete;

  // For another connection.
  void accept() {
    SSL_free(_ssl);
    _ssl = SSL_new(_context);
    SSL_set_bio(_ssl, BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
    SSL_set_accept_state(_ssl);
  }
  // Bytes from the wire, and for it.
  void take(std::string_view bytes) {
    BIO_write(SSL_get_rbio(_ssl), bytes.data(), static_cast<int>(bytes.size()));
    if (SSL_is_init_finished(_ssl) == 0) SSL_do_handshake(_ssl);
  }
  std::size_t give(char* into, std::size_t size) {
    return static_cast<std::size_t>(
        std::max(0, BIO_read(SSL_get_wbio(_ssl), into, static_cast<int>(size))));
  }
  bool holdsBytes() const { return BIO_ctrl_pending(SSL_get_wbio(_ssl)) > 0; }

  // What the client has sent: one record; nothing where none came.
  std::string readRecord() {
    std::string text(20000, '?');
    text.resize(static_cast<std::size_t>(
        std::max(0, SSL_read(_ssl, text.data(), static_cast<int>(text.size())))));
    return text;
  }
  std::string readAll() {
    std::string all;
    for (std::string one = readRecord(); !one.empty(); one = readRecord()) all += one;
    return all;
  }
  void write(std::string_view text) { SSL_write(_ssl, text.data(), static_cast<int>(text.size())); }
  void changeKeys() {
    SSL_key_update(_ssl, SSL_KEY_UPDATE_REQUESTED);
    SSL_do_handshake(_ssl);
  }
  void sayGoodbye() { SSL_shutdown(_ssl); }
  bool heardGoodbye() {
    readRecord();
    return (SSL_get_shutdown(_ssl) & SSL_RECEIVED_SHUTDOWN) != 0;
  }
  std::string announcedName() const {
    const char* const name = SSL_get_servername(_ssl, TLSEXT_NAMETYPE_host_name);
    return name == nullptr ? "" : name;
  }

 private:
  SSL_CTX* const _context;
  SSL* _ssl = nullptr;
};

// The connection to it. As every layer, it waits no longer than the limits say.
class Wire final : public Layer {
 public:
  Wire(TlsServerInMemory& server, const TimeLimits& limits) : _server(server), _limits(limits) {}

  void connect() override { ++connects; }
  std::size_t send(std::span<const std::string_view> pieces) override {
    ++sends;
    if (sendFails) throw Poco::IOException("cannot send");
    const std::string_view bytes = pieces.front().substr(0, room);
    _server.take(bytes);
    room -= bytes.size();
    return bytes.size();
  }
  std::optional<std::size_t> receive(char* data, std::size_t size, Wait wait) override {
    if (receiveFails) throw Poco::Net::ConnectionResetException("cannot receive");
    _limits.check();
    if (delay.count() > 0) std::this_thread::sleep_for(delay);
    const std::size_t given = silent ? 0 : _server.give(data, std::min(size, mostAtOnce));
    if (given > 0) return given;
    if (ended) return 0;
    if (wait == Wait::No) return std::nullopt;
    std::this_thread::sleep_until(_limits.endOfWait());
    _limits.check();
    throw Poco::TimeoutException("silence");
  }
  void awaitEither() override {
    ++waits;
    room = endless;
  }
  void awaitRoom() override { room = endless; }
  bool quiet() noexcept override { return !_server.holdsBytes() && !ended; }
  void close() noexcept override { ++closes; }

  std::size_t room = endless;
  std::size_t mostAtOnce = endless;
  std::chrono::milliseconds delay{0};  // before each receive
  bool silent = false;
  bool ended = false;
  bool sendFails = false;
  bool receiveFails = false;
  int connects = 0;
  int sends = 0;
  int waits = 0;
  int closes = 0;

 private:
  TlsServerInMemory& _server;
  const TimeLimits& _limits;
};

// A layer of TLS and the server's end. Parameterized by the version of TLS.
class TlsLayerTest : public testing::TestWithParam<int> {
 protected:
  explicit TlsLayerTest(std::chrono::milliseconds timeout = std::chrono::seconds(60))
      : server(authority.issue(), GetParam()), limits(timeout) {
    make("localhost");
  }

  void make(const std::string& serverName) {
    auto below = std::make_unique<Wire>(server, limits);
    wire = below.get();
    layer = std::make_unique<TlsLayer>(std::move(below), contexts.contextFor("localhost"),
                                       serverName, limits);
  }
  std::size_t send(std::vector<std::string_view> pieces) { return layer->send(pieces); }
  std::string receive(std::size_t size = 100) {
    std::string bytes(size, '?');
    bytes.resize(layer->receive(bytes.data(), size, Wait::Yes).value_or(0));
    return bytes;
  }
  bool nothingToReceive() {
    char byte = 0;
    return !layer->receive(&byte, 1, Wait::No).has_value();
  }

  test_support::CertificateAuthority authority;
  TlsServerInMemory server;
  TlsContexts contexts{{authority.caFile(), false}};
  TimeLimits limits;
  Wire* wire = nullptr;
  std::unique_ptr<TlsLayer> layer;
};

inline std::string nameOfTlsVersion(const testing::TestParamInfo<int>& tested) {
  return tested.param == TLS1_2_VERSION ? "Tls12" : "Tls13";
}

}  // namespace connectivity::plugins
