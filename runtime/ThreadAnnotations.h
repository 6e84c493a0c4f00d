// Names for clang's thread-safety attributes (-Wthread-safety); nothing under other compilers.
//
// Macros only, no code: this header belongs to no layer and any folder may include it.
#pragma once

#if defined(__clang__)
#define TAVRIK_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define TAVRIK_THREAD_ATTRIBUTE(x)
#endif

// On a type: it is a lock, or an object that holds one for a scope.
#define TAVRIK_CAPABILITY(name) TAVRIK_THREAD_ATTRIBUTE(capability(name))
#define TAVRIK_SCOPED_CAPABILITY TAVRIK_THREAD_ATTRIBUTE(scoped_lockable)

// On data: which lock guards it.
#define TAVRIK_GUARDED_BY(lock) TAVRIK_THREAD_ATTRIBUTE(guarded_by(lock))
#define TAVRIK_PT_GUARDED_BY(lock) TAVRIK_THREAD_ATTRIBUTE(pt_guarded_by(lock))

// On a function: what the caller must hold, must not hold, or holds afterwards.
#define TAVRIK_REQUIRES(...) TAVRIK_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define TAVRIK_REQUIRES_SHARED(...) TAVRIK_THREAD_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define TAVRIK_EXCLUDES(...) TAVRIK_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define TAVRIK_ACQUIRE(...) TAVRIK_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TAVRIK_ACQUIRE_SHARED(...) TAVRIK_THREAD_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define TAVRIK_RELEASE(...) TAVRIK_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define TAVRIK_RELEASE_SHARED(...) TAVRIK_THREAD_ATTRIBUTE(release_shared_capability(__VA_ARGS__))
#define TAVRIK_TRY_ACQUIRE(...) TAVRIK_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define TAVRIK_TRY_ACQUIRE_SHARED(...) \
    TAVRIK_THREAD_ATTRIBUTE(try_acquire_shared_capability(__VA_ARGS__))
#define TAVRIK_ACQUIRED_BEFORE(...) TAVRIK_THREAD_ATTRIBUTE(acquired_before(__VA_ARGS__))
#define TAVRIK_ACQUIRED_AFTER(...) TAVRIK_THREAD_ATTRIBUTE(acquired_after(__VA_ARGS__))

// On a function whose locking the analysis cannot follow; a comment beside it says why.
#define TAVRIK_NO_THREAD_SAFETY_ANALYSIS TAVRIK_THREAD_ATTRIBUTE(no_thread_safety_analysis)
