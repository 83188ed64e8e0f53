#include "tests/plugins/http_client/unit/wire/NameService.hpp"

#include <atomic>
#include <cassert>
#include <dlfcn.h>
#include <netdb.h>
#include <pthread.h>

namespace test_support {

namespace {

std::atomic<NameService*> current{nullptr};

int systemsGetaddrinfo(const char* node, const char* service, const addrinfo* hints,
                       addrinfo** list) {
  static const auto next =
      reinterpret_cast<decltype(&::getaddrinfo)>(::dlsym(RTLD_NEXT, "getaddrinfo"));
  return next(node, service, hints, list);
}

// One list of the addresses, which freeaddrinfo() takes.
addrinfo* listOf(const NameService::Addresses& addresses, addrinfo hints) {
  hints.ai_flags = AI_NUMERICHOST;
  addrinfo* list = nullptr;
  addrinfo** end = &list;
  for (const std::string& address : addresses) {
    if (systemsGetaddrinfo(address.c_str(), nullptr, &hints, end) != 0) return list;
    while (*end != nullptr) end = &(*end)->ai_next;
  }
  return list;
}

}  // namespace

NameService::NameService() {
  assert(current == nullptr);
  current = this;
}

NameService::~NameService() { current = nullptr; }

void NameService::answer(const std::string& name, const Addresses& addresses) {
  const std::lock_guard lock(_mutex);
  _names[name].addresses = addresses;
}

void NameService::fail(const std::string& name, int error) {
  const std::lock_guard lock(_mutex);
  _names[name].error = error;
}

void NameService::hold(const std::string& name, const Event& event) {
  const std::lock_guard lock(_mutex);
  _names[name].held = &event;
}

std::size_t NameService::asked(const std::string& name) const {
  const std::lock_guard lock(_mutex);
  const auto found = _names.find(name);
  return found == _names.end() ? 0 : found->second.asked;
}

void NameService::waitUntilAsked(const std::string& name, std::size_t howOften) const {
  std::unique_lock lock(_mutex);
  const auto enough = [&] {
    const auto found = _names.find(name);
    return found != _names.end() && found->second.asked >= howOften;
  };
  if (!_changed.wait_for(lock, patience, enough)) throw TimedOut("a look-up of " + name);
}

std::size_t NameService::askedAtAll() const {
  const std::lock_guard lock(_mutex);
  return _asked;
}

sigset_t NameService::signalMask() const {
  const std::lock_guard lock(_mutex);
  return _signalMask;
}

bool NameService::takeLookUp(const std::string& name, Name& copy) {
  const std::lock_guard lock(_mutex);
  ++_asked;
  ::pthread_sigmask(SIG_SETMASK, nullptr, &_signalMask);
  const auto found = _names.find(name);
  if (found == _names.end()) return false;
  ++found->second.asked;
  copy = found->second;
  _changed.notify_all();
  return true;
}

bool NameService::resolve(const char* name, const addrinfo& hints, addrinfo** list, int& result) {
  NameService* const service = current;
  Name known;
  if (service == nullptr || !service->takeLookUp(name, known)) return false;
  if (known.held != nullptr) known.held->wait();
  result = known.error;
  if (result == 0) *list = listOf(known.addresses, hints);
  return true;
}

}  // namespace test_support

// In place of the C library's.
extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* node,
                                                                  const char* service,
                                                                  const addrinfo* hints,
                                                                  addrinfo** list) {
  int result = 0;
  const bool named = node != nullptr && hints != nullptr;
  if (named && test_support::NameService::resolve(node, *hints, list, result)) return result;
  return test_support::systemsGetaddrinfo(node, service, hints, list);
}
