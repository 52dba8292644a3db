// Names for clang's thread-safety analysis; they vanish for other compilers.
#pragma once

#if defined(__clang__)
#define TARVIK_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define TARVIK_THREAD_ATTRIBUTE(x)
#endif

// On a class: it is a lock. On a member: the lock to hold while touching it. On a function: the
// lock that it takes, gives back, wants held, or must not find held by its caller.
#define CAPABILITY(x) TARVIK_THREAD_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY TARVIK_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) TARVIK_THREAD_ATTRIBUTE(guarded_by(x))
#define ACQUIRE(...) TARVIK_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) TARVIK_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define REQUIRES(...) TARVIK_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS TARVIK_THREAD_ATTRIBUTE(no_thread_safety_analysis)  // on purpose
#define EXCLUDES(...) TARVIK_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
