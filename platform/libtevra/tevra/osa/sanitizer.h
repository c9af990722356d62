#ifndef TEVRA_OSA_SANITIZER_H_
#define TEVRA_OSA_SANITIZER_H_

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TEVRA_THREAD_SANITIZER
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define TEVRA_THREAD_SANITIZER
#endif

#if defined(TEVRA_THREAD_SANITIZER)
#include <sanitizer/tsan_interface.h>
#endif

// For a function that lets the cancellation of its thread pass: the runtime makes no object for it,
// so the handler's reference to it, which no one reads, is null.
#define TEVRA_PASSES_CANCELLATION __attribute__((no_sanitize("null")))

namespace tevra::osa {

// Tells the thread sanitizer that this thread has just locked `mutex` by a call that the sanitizer
// does not know. Nothing in other builds.
inline void NoteLocked([[maybe_unused]] void* mutex) {
#if defined(TEVRA_THREAD_SANITIZER)
  __tsan_mutex_pre_lock(mutex, __tsan_mutex_try_lock);
  __tsan_mutex_post_lock(mutex, __tsan_mutex_try_lock, 0);
#endif
}

}  // namespace tevra::osa

#endif  // TEVRA_OSA_SANITIZER_H_
