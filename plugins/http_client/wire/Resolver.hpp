// Host names to addresses, with a wait that can be given up.
//
// The system's resolver cannot be interrupted, so each look-up runs on a thread of its own, which
// may outlive the request that began it; the destructor waits for all of them. Shared by the
// workers of one transport; any thread may call.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include <Poco/Net/IPAddress.h>
#include <Poco/Net/SocketAddress.h>

#include "orrery/Mutex.hpp"
#include "plugins/http_client/wire/TimeLimits.hpp"

namespace connectivity::plugins {

class Resolver {
 public:
  using Addresses = std::vector<Poco::Net::SocketAddress>;

  Resolver();
  ~Resolver();
  Resolver(const Resolver&) = delete;
  Resolver& operator=(const Resolver&) = delete;

  // The addresses of a host name or an IP address: IPv4 before IPv6, else in the resolver's order.
  // An IP address needs no thread. Errors: Poco::Net::HostNotFoundException,
  // Poco::Net::NoAddressFoundException and Poco::Net::DNSException with `peer` as their message;
  // Poco::TimeoutException "<peer> was not resolved within the time-out"; DeadlineExceeded.
  Addresses addressesOf(const std::string& host, std::uint16_t port, const std::string& peer,
                        const TimeLimits& limits) ORRERY_EXCLUDES(_mutex);

 private:
  struct LookUp;
  using LookUps = std::list<LookUp>;

  LookUps::iterator begin(const std::string& host) ORRERY_EXCLUDES(_mutex);
  void run(LookUp& lookUp) noexcept ORRERY_EXCLUDES(_mutex);
  // True once it has ended; false where the wait was over first, and it is left to run.
  bool awaitEnd(LookUp& lookUp, TimeLimits::Deadline end) ORRERY_EXCLUDES(_mutex);
  void joinAbandoned() ORRERY_EXCLUDES(_mutex);

  orrery::Mutex _mutex{"Resolver"};
  orrery::Condition _ended{_mutex};
  LookUps _lookUps ORRERY_GUARDED_BY(_mutex);
};

}  // namespace connectivity::plugins
