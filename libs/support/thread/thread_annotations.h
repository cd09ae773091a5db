#pragma once

// Names for Clang's thread-safety analysis (-Wthread-safety). Other compilers see nothing.
#if defined(__clang__)
#define ORVAN_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define ORVAN_THREAD_ATTRIBUTE(x)
#endif

#define ORVAN_CAPABILITY(name) ORVAN_THREAD_ATTRIBUTE(capability(name))
#define ORVAN_SCOPED_CAPABILITY ORVAN_THREAD_ATTRIBUTE(scoped_lockable)
#define ORVAN_GUARDED_BY(lock) ORVAN_THREAD_ATTRIBUTE(guarded_by(lock))
#define ORVAN_PT_GUARDED_BY(lock) ORVAN_THREAD_ATTRIBUTE(pt_guarded_by(lock))
#define ORVAN_REQUIRES(...) ORVAN_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define ORVAN_ACQUIRE(...) ORVAN_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define ORVAN_RELEASE(...) ORVAN_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define ORVAN_TRY_ACQUIRE(...) ORVAN_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define ORVAN_EXCLUDES(...) ORVAN_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ORVAN_RETURN_CAPABILITY(lock) ORVAN_THREAD_ATTRIBUTE(lock_returned(lock))
#define ORVAN_NO_THREAD_SAFETY_ANALYSIS ORVAN_THREAD_ATTRIBUTE(no_thread_safety_analysis)
