// Clang thread-safety annotations. Under clang with -Wthread-safety the
// compiler checks that lock-guarded fields are touched only with their lock
// held; under other compilers the macros expand to nothing.
#pragma once

#if defined(__clang__)
#define PT_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define PT_THREAD_ANNOTATION(x)
#endif

#define PT_CAPABILITY(x) PT_THREAD_ANNOTATION(capability(x))
#define PT_SCOPED_CAPABILITY PT_THREAD_ANNOTATION(scoped_lockable)
#define PT_GUARDED_BY(x) PT_THREAD_ANNOTATION(guarded_by(x))
#define PT_PT_GUARDED_BY(x) PT_THREAD_ANNOTATION(pt_guarded_by(x))
#define PT_REQUIRES(...) PT_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define PT_EXCLUDES(...) PT_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define PT_ACQUIRE(...) PT_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define PT_RELEASE(...) PT_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define PT_TRY_ACQUIRE(...) PT_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define PT_NO_THREAD_SAFETY_ANALYSIS PT_THREAD_ANNOTATION(no_thread_safety_analysis)
#define PT_RETURN_CAPABILITY(x) PT_THREAD_ANNOTATION(lock_returned(x))
