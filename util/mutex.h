// A plain mutex and its scoped lock.
#pragma once

#include <pthread.h>

namespace zeb::util {

/// Non-recursive, default attributes.
class Mutex {
 public:
  Mutex() { ::pthread_mutex_init(&mutex_, nullptr); }
  ~Mutex() { ::pthread_mutex_destroy(&mutex_); }
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void Lock() { ::pthread_mutex_lock(&mutex_); }
  /// Whether the mutex was free, and is locked now.
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

  /// Gives the mutex up early; at most once has an effect.
  void Unlock() {
    if (mutex_ == nullptr) return;
    mutex_->Unlock();
    mutex_ = nullptr;
  }

 private:
  Mutex* mutex_;
};

}  // namespace zeb::util
