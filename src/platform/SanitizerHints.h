// Tells ThreadSanitizer about hand-offs it cannot see. A request submitted to
// io_uring reaches the completion thread through memory the kernel writes, so
// the sanitizer would report the completion thread's first touch of the
// request as a race. The hints cost nothing outside sanitizer builds.
#pragma once

#if defined(__SANITIZE_THREAD__)
#define PT_TSAN_ENABLED 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define PT_TSAN_ENABLED 1
#endif
#endif

#ifdef PT_TSAN_ENABLED
extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);
#define PT_HANDOFF_RELEASE(address) __tsan_release(address)
#define PT_HANDOFF_ACQUIRE(address) __tsan_acquire(address)
#else
#define PT_HANDOFF_RELEASE(address) static_cast<void>(address)
#define PT_HANDOFF_ACQUIRE(address) static_cast<void>(address)
#endif
