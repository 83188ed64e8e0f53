// Clang's thread-safety annotations (https://clang.llvm.org/docs/ThreadSafetyAnalysis.html), so
// that a build with clang proves which mutex guards which member. Other compilers see nothing.
#pragma once

#if defined(__clang__)
#define ORRERY_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ORRERY_THREAD_ANNOTATION(x)
#endif

#define ORRERY_CAPABILITY(name) ORRERY_THREAD_ANNOTATION(capability(name))
#define ORRERY_SCOPED_CAPABILITY ORRERY_THREAD_ANNOTATION(scoped_lockable)
#define ORRERY_GUARDED_BY(mutex) ORRERY_THREAD_ANNOTATION(guarded_by(mutex))
#define ORRERY_PT_GUARDED_BY(mutex) ORRERY_THREAD_ANNOTATION(pt_guarded_by(mutex))
#define ORRERY_REQUIRES(...) ORRERY_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ORRERY_EXCLUDES(...) ORRERY_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ORRERY_ACQUIRE(...) ORRERY_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ORRERY_RELEASE(...) ORRERY_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ORRERY_TRY_ACQUIRE(...) ORRERY_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define ORRERY_ACQUIRED_AFTER(...) ORRERY_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define ORRERY_RETURN_CAPABILITY(x) ORRERY_THREAD_ANNOTATION(lock_returned(x))
#define ORRERY_NO_THREAD_SAFETY_ANALYSIS ORRERY_THREAD_ANNOTATION(no_thread_safety_analysis)
