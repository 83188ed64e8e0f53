#include "plugins/http_client/wire/Resolver.hpp"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <memory>
#include <netdb.h>
#include <sys/socket.h>
#include <thread>
#include <utility>

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>

namespace connectivity::plugins {

using Poco::Net::IPAddress;
using Poco::Net::SocketAddress;

struct Resolver::LookUp {
  enum class State { Running, Found, HostNotFound, NoAddress, Failed };

  explicit LookUp(std::string name) : host(std::move(name)) {}

  // Asks the system, and fills `addresses`.
  State ask();

  // The thread's alone until the state has changed.
  const std::string host;
  std::vector<IPAddress> addresses;
  // Guarded by the resolver's mutex.
  State state = State::Running;
  bool abandoned = false;  // nobody waits for it any more
  std::thread thread;
};

namespace {

// No signal of the host's is handled on the threads that are made in this scope.
class SignalsBlocked {
 public:
  SignalsBlocked() noexcept {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &_previous);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &_previous, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t _previous{};
};

Resolver::Addresses withPort(const std::vector<IPAddress>& found, std::uint16_t port) {
  Resolver::Addresses addresses;
  for (const IPAddress& address : found) addresses.emplace_back(address, port);
  std::stable_partition(addresses.begin(), addresses.end(), [](const SocketAddress& address) {
    return address.family() == SocketAddress::IPv4;
  });
  return addresses;
}

}  // namespace

// Not by Poco::Net::DNS, which sorts the addresses: their order is the system's choice (RFC 6724).
Resolver::LookUp::State Resolver::LookUp::ask() {
  addrinfo hints{};
  hints.ai_flags = AI_ADDRCONFIG;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  const int error = ::getaddrinfo(host.c_str(), nullptr, &hints, &list);
  if (error == EAI_NONAME) return State::HostNotFound;
  if (error == EAI_NODATA || error == EAI_ADDRFAMILY) return State::NoAddress;
  if (error != 0) return State::Failed;
  const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(list, ::freeaddrinfo);
  for (const addrinfo* one = list; one != nullptr; one = one->ai_next) {
    const IPAddress address = SocketAddress(one->ai_addr, one->ai_addrlen).host();
    const bool known = std::find(addresses.begin(), addresses.end(), address) != addresses.end();
    if (!known) addresses.push_back(address);
  }
  return addresses.empty() ? State::NoAddress : State::Found;
}

Resolver::Resolver() = default;

Resolver::~Resolver() {
  LookUps left;
  {
    const orrery::AutoMutex lock(_mutex);
    left.swap(_lookUps);
  }
  for (LookUp& lookUp : left) lookUp.thread.join();
}

Resolver::Addresses Resolver::addressesOf(const std::string& host, std::uint16_t port,
                                          const std::string& peer, const TimeLimits& limits) {
  IPAddress literal;
  if (IPAddress::tryParse(host, literal)) return {SocketAddress(literal, port)};
  joinAbandoned();
  const TimeLimits::Deadline end = limits.endOfWait();
  const auto lookUp = begin(host);
  if (!awaitEnd(*lookUp, end)) {
    limits.check();
    throw Poco::TimeoutException(peer + " was not resolved within the time-out");
  }
  LookUps ended;
  {
    const orrery::AutoMutex lock(_mutex);
    ended.splice(ended.end(), _lookUps, lookUp);
  }
  lookUp->thread.join();
  switch (lookUp->state) {
    case LookUp::State::Found:
      return withPort(lookUp->addresses, port);
    case LookUp::State::HostNotFound:
      throw Poco::Net::HostNotFoundException(peer);
    case LookUp::State::NoAddress:
      throw Poco::Net::NoAddressFoundException(peer);
    default:
      throw Poco::Net::DNSException(peer + ": the name could not be resolved");
  }
}

Resolver::LookUps::iterator Resolver::begin(const std::string& host) {
  LookUps one;
  one.emplace_back(host);
  const orrery::AutoMutex lock(_mutex);
  {
    const SignalsBlocked blocked;
    one.front().thread = std::thread([this, &lookUp = one.front()] { run(lookUp); });
  }
  _lookUps.splice(_lookUps.begin(), one);
  return _lookUps.begin();
}

void Resolver::run(LookUp& lookUp) noexcept {
  LookUp::State state = LookUp::State::Failed;
  try {
    state = lookUp.ask();
  } catch (...) {  // NOLINT(bugprone-empty-catch): the state tells it
  }
  const orrery::AutoMutex lock(_mutex);
  lookUp.state = state;
  _ended.broadcast();
}

bool Resolver::awaitEnd(LookUp& lookUp, TimeLimits::Deadline end) {
  const orrery::AutoMutex lock(_mutex);
  while (lookUp.state == LookUp::State::Running) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(end - TimeLimits::Clock::now()).count();
    if (left <= 0) {
      lookUp.abandoned = true;
      return false;
    }
    _ended.timedWait(left);
  }
  return true;
}

// Those that have ended since nobody waits for them.
void Resolver::joinAbandoned() {
  LookUps ended;
  {
    const orrery::AutoMutex lock(_mutex);
    for (auto next = _lookUps.begin(); next != _lookUps.end();) {
      const auto lookUp = next++;
      if (lookUp->abandoned && lookUp->state != LookUp::State::Running) {
        ended.splice(ended.end(), _lookUps, lookUp);
      }
    }
  }
  for (LookUp& lookUp : ended) lookUp.thread.join();
}

}  // namespace connectivity::plugins
