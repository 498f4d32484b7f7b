// Attributes for declarations.
#pragma once

// Keeps a member of an exported class inside the library.
#define ORVEX_LOCAL __attribute__((visibility("hidden")))

// Names for clang's thread-safety analysis; nothing under other compilers.
//
// https://clang.llvm.org/docs/ThreadSafetyAnalysis.html

#if defined(__clang__)
#define ORVEX_ANNOTATION(x) __attribute__((x))
#else
#define ORVEX_ANNOTATION(x)
#endif

#define ORVEX_CAPABILITY(name) ORVEX_ANNOTATION(capability(name))
#define ORVEX_SCOPED_CAPABILITY ORVEX_ANNOTATION(scoped_lockable)
#define ORVEX_GUARDED_BY(lock) ORVEX_ANNOTATION(guarded_by(lock))
#define ORVEX_REQUIRES(...) ORVEX_ANNOTATION(requires_capability(__VA_ARGS__))
#define ORVEX_EXCLUDES(...) ORVEX_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ORVEX_ACQUIRE(...) ORVEX_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ORVEX_RELEASE(...) ORVEX_ANNOTATION(release_capability(__VA_ARGS__))
#define ORVEX_ASSERT_CAPABILITY(lock) ORVEX_ANNOTATION(assert_capability(lock))
