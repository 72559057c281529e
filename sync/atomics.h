// Small atomic helpers shared by the lock-free code.
//
// full_fence() is a sequentially consistent fence, acquire_fence() an
// acquire fence. ThreadSanitizer does not
// model stand-alone fences, so every fence in this code base is paired with a
// release or acquire operation that carries the same ordering for it; the
// fence itself stays in the sanitized build, only the warning is silenced.
// tsan_release()/tsan_acquire() tell ThreadSanitizer about orderings that the
// hardware gives but that it cannot see (a 16-byte compare-and-swap reading
// words that were published by 8-byte stores); outside it they are empty.
#pragma once

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

namespace Base {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpragmas"
#pragma GCC diagnostic ignored "-Wtsan"
inline void full_fence() { __atomic_thread_fence(__ATOMIC_SEQ_CST); }
inline void acquire_fence() { __atomic_thread_fence(__ATOMIC_ACQUIRE); }
#pragma GCC diagnostic pop

inline void tsan_release(const void* address) {
#if defined(__SANITIZE_THREAD__)
    __tsan_release(const_cast<void*>(address));
#else
    (void)address;
#endif
}

inline void tsan_acquire(const void* address) {
#if defined(__SANITIZE_THREAD__)
    __tsan_acquire(const_cast<void*>(address));
#else
    (void)address;
#endif
}

}  // namespace Base
