// Small atomic helpers shared by the lock-free code.
//
// full_fence() is a sequentially consistent fence, acquire_fence() an
// acquire fence. ThreadSanitizer does not
// model stand-alone fences, so every fence in this code base is paired with a
// release or acquire operation that carries the same ordering for it; the
// fence itself stays in the sanitized build, only the warning is silenced.
#pragma once

namespace Base {

#if !defined(__clang__)  // only g++ warns of fences under ThreadSanitizer
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpragmas"
#pragma GCC diagnostic ignored "-Wtsan"
#endif
inline void full_fence() { __atomic_thread_fence(__ATOMIC_SEQ_CST); }
inline void acquire_fence() { __atomic_thread_fence(__ATOMIC_ACQUIRE); }
#if !defined(__clang__)
#pragma GCC diagnostic pop
#endif

}  // namespace Base
