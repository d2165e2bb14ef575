#pragma once

#include <mutex>

// A mutex that clang's thread safety analysis (-Wthread-safety) follows: what it guards is said where that is declared,
// and clang shows that it is only used with the lock held. Other compilers see a std::mutex.

#if defined(__clang__)
#define SSO_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define SSO_THREAD_SAFETY(attribute)
#endif

#define GUARDED_BY(mutex) SSO_THREAD_SAFETY(guarded_by(mutex))
#define REQUIRES(mutex) SSO_THREAD_SAFETY(requires_capability(mutex))
#define EXCLUDES(mutex) SSO_THREAD_SAFETY(locks_excluded(mutex))
#define UNCHECKED_LOCKING SSO_THREAD_SAFETY(no_thread_safety_analysis)

class SSO_THREAD_SAFETY(capability("mutex")) Mutex {
 public:
  void lock() SSO_THREAD_SAFETY(acquire_capability()) { owned.lock(); }
  bool try_lock() SSO_THREAD_SAFETY(try_acquire_capability(true)) { return owned.try_lock(); }
  void unlock() SSO_THREAD_SAFETY(release_capability()) { owned.unlock(); }

 private:
  std::mutex owned;
};

/// Holds a mutex while it lives.
class SSO_THREAD_SAFETY(scoped_lockable) MutexGuard {
 public:
  explicit MutexGuard(Mutex& mutex) SSO_THREAD_SAFETY(acquire_capability(mutex)) : held(mutex) { held.lock(); }
  ~MutexGuard() SSO_THREAD_SAFETY(release_capability()) { held.unlock(); }
  MutexGuard(const MutexGuard&) = delete;
  MutexGuard& operator=(const MutexGuard&) = delete;

 private:
  Mutex& held;
};
