// Prints the hash of each argument, a line each: a process of its own, for the tests of what
// differs from process to process. With NO_GETRANDOM in the environment, the kernel gives no random
// bytes.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include "connectivity/qor_plugin.h"

extern "C" QOR_API ssize_t getrandom(void* buffer, size_t size, unsigned flags) {
  if (std::getenv("NO_GETRANDOM") == nullptr) {
    return static_cast<ssize_t>(::syscall(SYS_getrandom, buffer, size, flags));
  }
  errno = ENOSYS;
  return -1;
}

int main(int count, char** arguments) {
  for (int i = 1; i < count; ++i) std::printf("%" PRIX64 "\n", qor_hash_string(arguments[i]));
}
