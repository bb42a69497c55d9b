#pragma once

// The scheduler hands task bodies between threads through atomics inside libtbb, which
// ThreadSanitizer cannot see when libtbb itself is not instrumented (the distribution's build is
// not). The parallel bodies mark those hand-over points, so that a ThreadSanitizer build checks the
// accesses of our own code instead of reporting every hand-over. In other builds this is empty.

#if defined(__SANITIZE_THREAD__)
#define ORL_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ORL_THREAD_SANITIZER 1
#endif
#endif

#ifdef ORL_THREAD_SANITIZER
#include <sanitizer/tsan_interface.h>
#define ORL_TSAN_RELEASE(p) __tsan_release(const_cast<void*>(static_cast<const volatile void*>(p)))
#define ORL_TSAN_ACQUIRE(p) __tsan_acquire(const_cast<void*>(static_cast<const volatile void*>(p)))
#else
#define ORL_TSAN_RELEASE(p) ((void)0)
#define ORL_TSAN_ACQUIRE(p) ((void)0)
#endif

namespace Orl { namespace Ostrel { namespace Band { namespace Detail {

// First base of a body whose splitting constructor reads another body on another thread: acquires
// that body before any member is copied from it.
struct SHandOver
{
  SHandOver() = default;
  explicit SHandOver(const void* pFrom) { ORL_TSAN_ACQUIRE(pFrom); (void)pFrom; }
};

}}}} // namespace Orl::Ostrel::Band::Detail
