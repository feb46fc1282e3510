// Clang's thread-safety analysis: which lock guards which data, and which
// functions take, give back or need which lock.  The clang build in CI
// (scripts/test.sh) compiles the library with -Wthread-safety -Werror;
// other compilers see empty macros.
//
// The locks that a thread may take again (the recursive chunk lock and
// dearchiver mutex, the overlay table's read hold) are taken again by functions their holders call,
// which the analysis would report as double locking.  Their scoped lockers therefore assert the
// lock rather than acquire it: a function that needs one is checked to run after a locker, or under
// a REQUIRES of its own, in its caller; the analysis does not see the locker's scope end.
#ifndef KEST2_SRC_CORE_THREAD_ANNOTATIONS_H_
#define KEST2_SRC_CORE_THREAD_ANNOTATIONS_H_

#if defined(__clang__)
#define KEST2_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KEST2_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) KEST2_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY KEST2_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) KEST2_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) KEST2_THREAD_ANNOTATION(pt_guarded_by(x))
#define REQUIRES(...) KEST2_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) KEST2_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) KEST2_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) KEST2_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) KEST2_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) KEST2_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) KEST2_THREAD_ANNOTATION(assert_capability(x))
#define ASSERT_SHARED_CAPABILITY(x) KEST2_THREAD_ANNOTATION(assert_shared_capability(x))
#define EXCLUDES(...) KEST2_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define RETURN_CAPABILITY(x) KEST2_THREAD_ANNOTATION(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS KEST2_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif  // KEST2_SRC_CORE_THREAD_ANNOTATIONS_H_
