// One interface for all the clients. Its calls return once the broker has confirmed. If a client announces
// that only in a callback, a semaphore waits for it.
#pragma once

#include <semaphore.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace zeb::bench {

constexpr int k_wait_s = 20;        // limit for one confirmation
constexpr int k_keep_alive_s = 60;  // of every client
constexpr char k_topic[] = "bench/values";

inline int64_t NowNs() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

/// A callback posts it, and the thread that made the request waits for it.
class Signal {
 public:
  Signal() { ::sem_init(&semaphore_, 0, 0); }
  ~Signal() { ::sem_destroy(&semaphore_); }
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;
  void Post(bool good = true) {
    good_ = good;
    ::sem_post(&semaphore_);
  }
  /// Waits. Returns whether it was posted in time, with `good`.
  bool Wait(int seconds = k_wait_s) {
    timespec end{};
    ::clock_gettime(CLOCK_REALTIME, &end);
    end.tv_sec += seconds;
    return ::sem_timedwait(&semaphore_, &end) == 0 && good_;
  }

 private:
  sem_t semaphore_{};
  std::atomic<bool> good_{false};
};

/// Matches confirmations with requests whose identifier is known only after they have been sent. Any thread.
class Confirmations {
 public:
  void Confirm(int identifier) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto waiter = waiters_.find(identifier);
    if (waiter == waiters_.end()) {
      early_.insert(identifier);
      return;
    }
    waiter->second->Post();
    waiters_.erase(waiter);
  }
  bool Await(int identifier) {
    Signal signal;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (early_.erase(identifier) != 0) return true;
      waiters_[identifier] = &signal;
    }
    if (signal.Wait()) return true;
    const std::lock_guard<std::mutex> lock(mutex_);
    waiters_.erase(identifier);
    return false;
  }

 private:
  std::mutex mutex_;  // guards both
  std::map<int, Signal*> waiters_;
  std::set<int> early_;
};

struct Target {
  std::string host;
  int port = 0;
  std::string ca_file;  // empty for a broker without TLS
  std::string client_id;
  [[nodiscard]] std::string Uri() const {
    return (ca_file.empty() ? "tcp://" : "ssl://") + host + ":" + std::to_string(port);
  }
};

/// One client. Publish may be called by several threads at once.
class Peer {
 public:
  virtual ~Peer() = default;
  [[nodiscard]] virtual bool Connect() = 0;
  [[nodiscard]] virtual bool Publish(const std::string& payload, int qos) = 0;
  [[nodiscard]] virtual bool Subscribe(const std::string& topic, int qos) = 0;
  [[nodiscard]] virtual bool Disconnect() = 0;

  /// Call before Subscribe: this many messages of this size will arrive.
  void Expect(long messages, size_t size) {
    expected_ = messages;
    size_ = size;
  }
  /// Waits for them. Returns when the last one arrived, or 0 if not all did.
  int64_t AwaitArrivals() { return complete_.Wait() ? last_ns_ : 0; }

 protected:
  void Arrive(size_t size) {
    if (size != size_ || ++arrived_ != expected_) return;
    last_ns_ = NowNs();
    complete_.Post();
  }

 private:
  Signal complete_;
  long expected_ = 0;
  size_t size_ = 0;
  std::atomic<long> arrived_{0};
  int64_t last_ns_ = 0;
};

struct Maker {
  const char* name;
  std::unique_ptr<Peer> (*make)(const Target&);  // null if its library was missing at build time
};
/// All clients. This library is the first.
const std::vector<Maker>& Makers();

// Each is built only if its library was found.
std::unique_ptr<Peer> MakeMosquitto(const Target& target);
std::unique_ptr<Peer> MakePahoAsync(const Target& target);
std::unique_ptr<Peer> MakePahoSync(const Target& target);
std::unique_ptr<Peer> MakePahoCpp(const Target& target);

}  // namespace zeb::bench
