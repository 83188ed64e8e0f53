// A worker's session and what it needs, for tests of exchanges.
#pragma once

#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "plugins/http_client/exchange/Exchange.hpp"
#include "plugins/http_client/exchange/SessionHome.hpp"
#include "plugins/http_client/wire/Resolver.hpp"
#include "plugins/http_client/wire/TlsContexts.hpp"
#include "tests/plugins/http_client/TransportParts.hpp"

namespace connectivity::plugins {

struct ExchangeParts : TransportParts {
  explicit ExchangeParts(const test_support::Config& config) : TransportParts(config) {}

  TlsContexts contexts{TlsSettings{
      options.tls.certificateAuthorityFile, options.tls.acceptUnrecognizedCertificates,
      options.tls.clientCertificateFile, options.tls.clientKeyFile, options.tls.clientKeyPassword}};
  Resolver resolver;
  SessionHome home{options, contexts, resolver, log};
};

// One worker's exchanges.
class ExchangeClient {
 public:
  explicit ExchangeClient(const test_support::Config& config) : parts(config) {}

  const Outcome& perform(const test_support::Request& given) {
    req.emplace(parts.read(given));
    return perform();
  }
  // The request as it was set.
  const Outcome& perform() {
    outcome = exchange.handleRequest(*req);
    EXPECT_TRUE(outcome.response || !outcome.failure.text().empty());
    return outcome;
  }
  // The response's body, or what the failure says.
  std::string bodyOf(const test_support::Request& given) {
    const Outcome& got = perform(given);
    return got.response ? std::string(got.response->payload.view()) : got.failure.text();
  }

  ExchangeParts parts;
  Exchange exchange{parts.options, parts.cookies, parts.home, parts.log};
  std::optional<request> req;
  Outcome outcome;
};

}  // namespace connectivity::plugins
