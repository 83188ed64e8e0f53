// The TLS contexts of one transport: which servers it believes, how it speaks to them, and to which
// of them it shows a certificate of its own.
//
// Shared by the transport's workers; every function may be called from any thread. A context lives
// as long as a session holds it. Loading the system's authorities takes some 20 ms, so it is done
// once, on first need, and a server's context is made once for all workers.
//
// No context renegotiates, asks a handler of the process, or asks for a passphrase on the terminal.
#pragma once

#include <map>
#include <string>

#include <Poco/Net/Context.h>

#include "orrery/Mutex.hpp"

namespace connectivity::plugins {

// The members have initializers, so that the later ones may be left out: TlsSettings{"ca.pem"}.
struct TlsSettings {
  std::string caFile{};             // PEM: authorities to be trusted beside the system's; or empty
  bool acceptUnrecognized = false;  // accept every certificate, whatever it says
  std::string clientCertificateFile{};  // PEM, with its chain; empty: none is shown
  std::string clientKeyFile{};          // PEM
  std::string clientKeyPassword{};      // empty: the key is not encrypted
  std::string caFileOption = "tlsCertificateAuthorityFile";  // what errors call the first one
};

// Errors are std::runtime_error, "HTTPClient configuration " and one of these; the reason is the
// system's or OpenSSL's. None holds the passphrase.
//   "<option>: cannot use <file>: <reason>"
//   "tlsClientKeyPassword: cannot decrypt <key file>: <reason>" (also where none is given)
//   "tlsClientKeyFile: <key file> does not fit <certificate file>: <reason>"
// where the option is caFileOption, tlsClientCertificateFile or tlsClientKeyFile. A
// host that no certificate can name is a Poco::Net::SSLContextException.
class TlsContexts {
 public:
  explicit TlsContexts(TlsSettings settings);
  TlsContexts(const TlsContexts&) = delete;
  TlsContexts& operator=(const TlsContexts&) = delete;

  // The context for a connection to `host`, a name or an IP address, which is shown no certificate.
  // The check that the server's certificate is for that host is part of the handshake; a final dot
  // of the name does not count.
  Poco::Net::Context::Ptr contextFor(const std::string& host) ORRERY_EXCLUDES(_mutex);

  // The same for the configured server, which is shown the client's certificate where there is one:
  // then the context is shared with no other server. It is made once, so a file that is changed or
  // removed later does no harm.
  Poco::Net::Context::Ptr contextForConfiguredServer(const std::string& host)
      ORRERY_EXCLUDES(_mutex);

 private:
  // The context that has loaded the authorities and checks no host.
  const Poco::Net::Context::Ptr& base() ORRERY_REQUIRES(_mutex);
  Poco::Net::Context::Ptr newContextFor(const std::string& name) ORRERY_REQUIRES(_mutex);
  Poco::Net::Context::Ptr newCertifiedContext(const std::string& name) ORRERY_REQUIRES(_mutex);

  const TlsSettings _settings;
  orrery::Mutex _mutex{"TlsContexts"};
  Poco::Net::Context::Ptr _base ORRERY_GUARDED_BY(_mutex);
  // By host in lower case, without its final dot.
  std::map<std::string, Poco::Net::Context::Ptr> _contexts ORRERY_GUARDED_BY(_mutex);
  // The one that shows the certificate, and the name that it checks.
  Poco::Net::Context::Ptr _certified ORRERY_GUARDED_BY(_mutex);
  std::string _certifiedName ORRERY_GUARDED_BY(_mutex);
};

}  // namespace connectivity::plugins
