#include "plugins/http_client/wire/TlsContexts.hpp"

#include <utility>

#include <Poco/Crypto/OpenSSLInitializer.h>
#include <Poco/Exception.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/Net/SSLException.h>
#include <Poco/String.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

namespace connectivity::plugins {

namespace {

using Poco::Net::Context;

constexpr int verificationDepth = 9;
constexpr const char* cipherList = "HIGH+TLSv1.2:!COMPLEMENTOFDEFAULT:!PSK:!aNULL:!eNULL";
// Redirects can name any number of hosts; beyond this many the contexts are made anew.
constexpr std::size_t maxContexts = 64;

// A context whose constructor throws keeps the use of OpenSSL that it has counted; it is given back
// here, or what Poco allocates for the first use would never be freed.
Context::Ptr countedContext(const std::string& caFile, Context::VerificationMode mode,
                            bool loadDefaultCAs) {
  try {
    return new Context(Context::TLSV1_2_CLIENT_USE, caFile, mode, verificationDepth, loadDefaultCAs,
                       cipherList);
  } catch (const Poco::Exception&) {
    Poco::Crypto::OpenSSLInitializer::uninitialize();
    throw;
  }
}

Context::Ptr newContext(const std::string& caFile, Context::VerificationMode mode,
                        bool loadDefaultCAs) {
  Context::Ptr context = countedContext(caFile, mode, loadDefaultCAs);
  // OpenSSL's verdict stands: no handler that the process may have installed is asked.
  SSL_CTX_set_verify(context->sslContext(), mode, nullptr);
  return context;
}

// The handshake fails where the certificate is not for `host`.
void checkHost(SSL_CTX* context, const std::string& host) {
  X509_VERIFY_PARAM* const param = SSL_CTX_get0_param(context);
  Poco::Net::IPAddress address;
  int accepted = 0;
  if (Poco::Net::IPAddress::tryParse(host, address)) {
    accepted = X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str());
  } else {
    X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    accepted = X509_VERIFY_PARAM_set1_host(param, host.data(), host.size());
  }
  if (host.empty() || accepted != 1) {
    throw Poco::Net::SSLContextException("Cannot verify certificates for the host", host);
  }
}

}  // namespace

TlsContexts::TlsContexts(std::string caFile, bool acceptUnrecognized)
    : _caFile(std::move(caFile)), _acceptUnrecognized(acceptUnrecognized) {}

const Context::Ptr& TlsContexts::base() {
  if (_base.isNull()) {
    const auto mode = _acceptUnrecognized ? Context::VERIFY_NONE : Context::VERIFY_STRICT;
    _base = newContext(_caFile, mode, true);
  }
  return _base;
}

Context::Ptr TlsContexts::contextChecking(const std::string& host) {
  X509_STORE* const authorities = SSL_CTX_get_cert_store(base()->sslContext());
  Context::Ptr context = newContext({}, Context::VERIFY_STRICT, false);
  SSL_CTX_set1_cert_store(context->sslContext(), authorities);
  checkHost(context->sslContext(), host);
  return context;
}

Context::Ptr TlsContexts::contextFor(const std::string& host) {
  std::string name = Poco::toLower(host);
  if (name.ends_with('.')) name.pop_back();  // certificates name hosts without the root's dot
  const orrery::AutoMutex lock(_mutex);
  if (_acceptUnrecognized) return base();
  const auto known = _contexts.find(name);
  if (known != _contexts.end()) return known->second;
  Context::Ptr context = contextChecking(name);
  if (_contexts.size() >= maxContexts) _contexts.clear();
  _contexts.emplace(std::move(name), context);
  return context;
}

}  // namespace connectivity::plugins
