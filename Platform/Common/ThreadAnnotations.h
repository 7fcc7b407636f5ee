// Names for clang's thread-safety attributes, so that a declaration says which lock guards a field
// and what a function needs to hold. They mean something to `-Wthread-safety` and nothing to g++.
// See https://clang.llvm.org/docs/ThreadSafetyAnalysis.html.
#pragma once

#if defined(__clang__)
#define VANTRY_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define VANTRY_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(name) VANTRY_THREAD_ATTRIBUTE(capability(name))
#define SCOPED_CAPABILITY VANTRY_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(lock) VANTRY_THREAD_ATTRIBUTE(guarded_by(lock))
#define PT_GUARDED_BY(lock) VANTRY_THREAD_ATTRIBUTE(pt_guarded_by(lock))
#define REQUIRES(...) VANTRY_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) VANTRY_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) VANTRY_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) VANTRY_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) VANTRY_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
