// Host names as a test wants them: the program that this is part of has a getaddrinfo() of its own,
// which answers from here what was told, and asks the system for every other name.
//
// One at a time; it must outlive every look-up. Any thread may call.
#pragma once

#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/Event.hpp"

struct addrinfo;

namespace test_support {

class NameService {
 public:
  using Addresses = std::vector<std::string>;  // "127.0.0.1", "::1"

  NameService();
  ~NameService();
  NameService(const NameService&) = delete;
  NameService& operator=(const NameService&) = delete;

  // The name's addresses, in this order.
  void answer(const std::string& name, const Addresses& addresses);
  // getaddrinfo() returns this error (EAI_AGAIN, ...).
  void fail(const std::string& name, int error);
  // The name's look-ups wait for the event before they end. Borrowed.
  void hold(const std::string& name, const Event& event);

  // How often the name was asked for.
  std::size_t asked(const std::string& name) const;
  // Waits until it has been asked for so often. TimedOut.
  void waitUntilAsked(const std::string& name, std::size_t howOften = 1) const;
  // Look-ups of every name.
  std::size_t askedAtAll() const;
  // The signals that were blocked on the thread of the latest look-up.
  sigset_t signalMask() const;

  // For getaddrinfo(): whether the name is known here, and then its result.
  static bool resolve(const char* name, const addrinfo& hints, addrinfo** list, int& result);

 private:
  struct Name {
    Addresses addresses;
    int error = 0;
    const Event* held = nullptr;
    std::size_t asked = 0;
  };
  bool takeLookUp(const std::string& name, Name& copy);

  mutable std::mutex _mutex;
  mutable std::condition_variable _changed;
  // Below: guarded by _mutex.
  std::map<std::string, Name> _names;
  sigset_t _signalMask{};
  std::size_t _asked = 0;
};

}  // namespace test_support
