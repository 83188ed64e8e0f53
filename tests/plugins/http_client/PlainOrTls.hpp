// A scripted server, and the transport's configuration for it, in the clear and over TLS: for what
// has to hold over both.
//
//   TEST_P(MyTest, DoesSo) {
//     const auto server = serving(script);
//     PluginUnderTest plugin(to(*server), terse());
//   }
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Answering.hpp"
#include "tests/support/Certificates.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {

enum class Over { Tcp, Tls };

inline std::string nameOfOver(const ::testing::TestParamInfo<Over>& info) {
  return info.param == Over::Tcp ? "InTheClear" : "OverTls";
}

// Without the lines that hold whole bodies.
inline PluginOptions terse() {
  PluginOptions options;
  options.logLevel = QOR_LOG_DEBUG;
  return options;
}

class PlainOrTls : public ::testing::TestWithParam<Over> {
 protected:
  std::unique_ptr<ScriptedServer> serving(std::vector<ScriptedServer::Script> scripts) {
    if (GetParam() == Over::Tcp) return std::make_unique<ScriptedServer>(std::move(scripts));
    _authority = std::make_unique<CertificateAuthority>();
    return std::make_unique<ScriptedServer>(std::move(scripts), TlsOptions{_authority->issue()});
  }
  std::unique_ptr<ScriptedServer> serving(ScriptedServer::Script script) {
    return serving(std::vector<ScriptedServer::Script>{std::move(script)});
  }
  // One worker.
  Config to(const ScriptedServer& server) const {
    Config config = oneClient(server.port());
    if (_authority) config.tls(_authority->caFile());
    return config;
  }

 private:
  std::unique_ptr<CertificateAuthority> _authority;
};

#define INSTANTIATE_PLAIN_AND_TLS(suite) \
  INSTANTIATE_TEST_SUITE_P(Server, suite, ::testing::Values(Over::Tcp, Over::Tls), nameOfOver)

}  // namespace test_support
