#ifndef TEVRA_OSA_THREAD_ANNOTATIONS_H_
#define TEVRA_OSA_THREAD_ANNOTATIONS_H_

// clang's lock annotations under short names; nothing for other compilers.
#if defined(__clang__)
#define TEVRA_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define TEVRA_THREAD_ATTRIBUTE(x)
#endif

#define TEVRA_CAPABILITY(x) TEVRA_THREAD_ATTRIBUTE(capability(x))
#define TEVRA_SCOPED_CAPABILITY TEVRA_THREAD_ATTRIBUTE(scoped_lockable)
#define TEVRA_GUARDED_BY(x) TEVRA_THREAD_ATTRIBUTE(guarded_by(x))
#define TEVRA_PT_GUARDED_BY(x) TEVRA_THREAD_ATTRIBUTE(pt_guarded_by(x))
#define TEVRA_REQUIRES(...) TEVRA_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define TEVRA_EXCLUDES(...) TEVRA_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define TEVRA_ACQUIRE(...) TEVRA_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TEVRA_RELEASE(...) TEVRA_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define TEVRA_TRY_ACQUIRE(...) TEVRA_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define TEVRA_NO_THREAD_SAFETY_ANALYSIS TEVRA_THREAD_ATTRIBUTE(no_thread_safety_analysis)

#endif  // TEVRA_OSA_THREAD_ANNOTATIONS_H_
