// Brings one interleaving of threads about, so that a test need not hope for it: on one processor,
// what an idling thread wakes runs before the next step of that thread.
#pragma once

#include <sched.h>

namespace test_support {

// Keeps the calling thread, and those that it starts meanwhile, on one processor.
class OnOneProcessor {
 public:
  OnOneProcessor() {
    ::sched_getaffinity(0, sizeof _before, &_before);
    cpu_set_t one;
    CPU_ZERO(&one);
    for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
      if (!CPU_ISSET(processor, &_before)) continue;
      CPU_SET(processor, &one);
      break;
    }
    ::sched_setaffinity(0, sizeof one, &one);
  }
  ~OnOneProcessor() { ::sched_setaffinity(0, sizeof _before, &_before); }
  OnOneProcessor(const OnOneProcessor&) = delete;
  OnOneProcessor& operator=(const OnOneProcessor&) = delete;

 private:
  cpu_set_t _before{};
};

// The calling thread runs only where no other thread of its processor would.
inline void runWhenNobodyElseDoes() {
  const sched_param parameters{};
  ::sched_setscheduler(0, SCHED_IDLE, &parameters);
}

}  // namespace test_support
