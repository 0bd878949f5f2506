// A mutex the compiler can reason about: clang's thread-safety analysis
// (-Wthread-safety, on in our clang builds) checks that every field marked
// GUARDED_BY(mu) is touched only while mu is held. Other compilers see plain
// std::mutex code.
//
// Threads: Mutex is a std::mutex; MutexLock holds it for one scope.
#pragma once

#include <mutex>

// Abseil (through gRPC) defines some of the same names with the same
// meaning; whichever comes first is used.
#if defined(__clang__)
#define VELQUIN_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VELQUIN_THREAD_ANNOTATION(x)
#endif

#ifndef CAPABILITY
#define CAPABILITY(x) VELQUIN_THREAD_ANNOTATION(capability(x))
#endif
#ifndef SCOPED_CAPABILITY
#define SCOPED_CAPABILITY VELQUIN_THREAD_ANNOTATION(scoped_lockable)
#endif
#ifndef GUARDED_BY
#define GUARDED_BY(x) VELQUIN_THREAD_ANNOTATION(guarded_by(x))
#endif
#ifndef PT_GUARDED_BY
#define PT_GUARDED_BY(x) VELQUIN_THREAD_ANNOTATION(pt_guarded_by(x))
#endif
#ifndef REQUIRES
#define REQUIRES(...) VELQUIN_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#endif
#ifndef ACQUIRE
#define ACQUIRE(...) VELQUIN_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#endif
#ifndef RELEASE
#define RELEASE(...) VELQUIN_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#endif
#ifndef EXCLUDES
#define EXCLUDES(...) VELQUIN_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#endif
#ifndef NO_THREAD_SAFETY_ANALYSIS
#define NO_THREAD_SAFETY_ANALYSIS VELQUIN_THREAD_ANNOTATION(no_thread_safety_analysis)
#endif

namespace velquin::support {

class CAPABILITY("mutex") Mutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace velquin::support
