// A mutex and its scoped lock. Any thread.
#pragma once

#include <pthread.h>

namespace zeb::util {

/// A non-recursive mutex.
class Mutex {
 public:
  Mutex() { ::pthread_mutex_init(&mutex_, nullptr); }
  ~Mutex() { ::pthread_mutex_destroy(&mutex_); }
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void Lock() { ::pthread_mutex_lock(&mutex_); }
  /// Locks the mutex if it is free. Returns whether it did.
  bool TryLock() { return ::pthread_mutex_trylock(&mutex_) == 0; }
  void Unlock() { ::pthread_mutex_unlock(&mutex_); }

 private:
  friend class Condition;
  pthread_mutex_t mutex_;
};

/// Holds a mutex until the end of the scope, or until Unlock().
class MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) : mutex_(&mutex) { mutex_->Lock(); }
  ~MutexLock() { Unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  /// Releases the mutex early. Further calls have no effect.
  void Unlock() {
    if (mutex_ == nullptr) return;
    mutex_->Unlock();
    mutex_ = nullptr;
  }

 private:
  Mutex* mutex_;
};

}  // namespace zeb::util
