// Little address space for as long as it lives, so that large allocations fail and few threads can
// be started. Not under sanitizers, which reserve terabytes: where ADDRESS_SPACE_CAN_BE_LIMITED is
// undefined, there is no such class.
#pragma once

#include "tests/support/Sanitizers.hpp"

#ifndef BUILT_WITH_A_SANITIZER
#define ADDRESS_SPACE_CAN_BE_LIMITED
#endif

#ifdef ADDRESS_SPACE_CAN_BE_LIMITED

#include <fstream>
#include <sys/resource.h>
#include <unistd.h>

namespace test_support {

class ScarceAddressSpace {
 public:
  // Leaves 64 MB.
  ScarceAddressSpace() {
    getrlimit(RLIMIT_AS, &_previous);
    std::ifstream file("/proc/self/statm");
    rlim_t pages = 0;
    file >> pages;
    constexpr rlim_t room = 64 << 20;
    const rlimit scarce{pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + room,
                        _previous.rlim_max};
    setrlimit(RLIMIT_AS, &scarce);
  }
  ~ScarceAddressSpace() { setrlimit(RLIMIT_AS, &_previous); }
  ScarceAddressSpace(const ScarceAddressSpace&) = delete;
  ScarceAddressSpace& operator=(const ScarceAddressSpace&) = delete;

 private:
  rlimit _previous{};
};

}  // namespace test_support

#endif
