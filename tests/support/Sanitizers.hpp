// BUILT_WITH_A_SANITIZER is defined where the address or the thread sanitizer is in: they bring
// their own allocator, and reserve terabytes of address space.
#pragma once

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define BUILT_WITH_A_SANITIZER
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define BUILT_WITH_A_SANITIZER
#endif
#endif
