#pragma once

/**
 * Lock rules that the compiler checks (clang's -Wthread-safety; other compilers see nothing).
 * Put OSW_GUARDED_BY(mutex) behind every field that a mutex guards, OSW_REQUIRES(mutex) behind
 * every function that expects it locked.
 */
#if defined(__clang__)
#define OSW_ANNOTATION(x) __attribute__((x))
#else
#define OSW_ANNOTATION(x)
#endif

#define OSW_CAPABILITY(name) OSW_ANNOTATION(capability(name))
#define OSW_SCOPED_CAPABILITY OSW_ANNOTATION(scoped_lockable)
#define OSW_GUARDED_BY(mutex) OSW_ANNOTATION(guarded_by(mutex))
#define OSW_PT_GUARDED_BY(mutex) OSW_ANNOTATION(pt_guarded_by(mutex))
#define OSW_REQUIRES(...) OSW_ANNOTATION(requires_capability(__VA_ARGS__))
#define OSW_ACQUIRE(...) OSW_ANNOTATION(acquire_capability(__VA_ARGS__))
#define OSW_RELEASE(...) OSW_ANNOTATION(release_capability(__VA_ARGS__))
#define OSW_TRY_ACQUIRE(...) OSW_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define OSW_ASSERTS(...) OSW_ANNOTATION(assert_capability(__VA_ARGS__))
#define OSW_EXCLUDES(...) OSW_ANNOTATION(locks_excluded(__VA_ARGS__))
#define OSW_RETURN_CAPABILITY(mutex) OSW_ANNOTATION(lock_returned(mutex))
#define OSW_NO_ANALYSIS OSW_ANNOTATION(no_thread_safety_analysis)
