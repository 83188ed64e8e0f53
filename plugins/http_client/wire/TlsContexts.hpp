// The TLS contexts of one transport: which servers it believes, and how it speaks to them.
//
// Shared by the transport's workers; every function may be called from any thread. A context lives
// as long as a session holds it. Loading the system's authorities takes some 20 ms, so it is done
// once, on first need, and a server's context is made once for all workers.
#pragma once

#include <map>
#include <string>

#include <Poco/Net/Context.h>

#include "orrery/Mutex.hpp"

namespace connectivity::plugins {

class TlsContexts {
 public:
  // `caFile` holds authorities to be trusted beside the system's; it may be empty.
  // `acceptUnrecognized` accepts every certificate, whatever it says.
  TlsContexts(std::string caFile, bool acceptUnrecognized);
  TlsContexts(const TlsContexts&) = delete;
  TlsContexts& operator=(const TlsContexts&) = delete;

  // The context for a connection to `host`, a name or an IP address. The check that the
  // certificate is for that host is part of the handshake. Throws Poco::FileNotFoundException for
  // a missing CA file, Poco::Net::SSLContextException for one that cannot be read.
  Poco::Net::Context::Ptr contextFor(const std::string& host) ORRERY_EXCLUDES(_mutex);

 private:
  // The context that has loaded the authorities and checks no host.
  const Poco::Net::Context::Ptr& base() ORRERY_REQUIRES(_mutex);
  Poco::Net::Context::Ptr contextChecking(const std::string& host) ORRERY_REQUIRES(_mutex);

  const std::string _caFile;
  const bool _acceptUnrecognized;
  orrery::Mutex _mutex{"TlsContexts"};
  Poco::Net::Context::Ptr _base ORRERY_GUARDED_BY(_mutex);
  // By host in lower case.
  std::map<std::string, Poco::Net::Context::Ptr> _contexts ORRERY_GUARDED_BY(_mutex);
};

}  // namespace connectivity::plugins
