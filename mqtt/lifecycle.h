// Who may start, stop and delete a client. The Lifecycle holds the one state, the current Session and the
// handle of the receive thread; it sends nothing, waits for no network and writes no line. Its calls say
// which thread makes them; docs/architecture.md has the picture of the states.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

#include "mqtt/session.h"
#include "util/condition.h"
#include "util/mutex.h"
#include "util/result.h"
#include "util/scoped_fd.h"
#include "util/thread.h"

namespace zeb::mqtt {

class Lifecycle {
 public:
  /// The current Session is closed at first, and again after a stop. It is never null.
  Lifecycle() : session_(std::make_shared<Session>()) {}
  Lifecycle(const Lifecycle&) = delete;
  Lifecycle& operator=(const Lifecycle&) = delete;

  // ---- Any thread.
  [[nodiscard]] std::shared_ptr<Session> Current() const;
  /// Whether the caller is the receive thread, up to its EndThread.
  [[nodiscard]] bool OnReceiveThread() const;

  /// Stands for one call of StartClient or StopClient, a refused one included: the destructor waits for it.
  class Call {
   public:
    explicit Call(Lifecycle& lifecycle);
    ~Call();
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

   private:
    Lifecycle& lifecycle_;
  };

  // ---- A start, on its own thread.
  /// Claims the client: idle becomes connecting. Waits up to `patience_us` in total for a stop that runs or
  /// for a start that has lost its thread, except on the receive thread, which could only wait in vain.
  /// False: somebody else has the client.
  [[nodiscard]] bool BeginStart(int64_t patience_us);
  /// Becomes readable when a stop takes this start back; -1 when the system had no descriptor.
  [[nodiscard]] int abort_fd() const { return abort_fd_.get(); }
  [[nodiscard]] bool StartAborted() const;
  /// Makes `session` the current one and returns the one before, for the caller to let go of without a lock.
  [[nodiscard]] std::shared_ptr<Session> Install(std::shared_ptr<Session> session);
  /// Makes the receive thread: connecting becomes exchanging. `kNotStarted`: a stop was earlier; `kFailure`:
  /// the system has no thread. `body` ends with EndThread.
  Result LaunchThread(std::function<void()> body);
  /// Ends a start that has made no thread: connecting becomes idle.
  void EndStart();
  /// The start of `own` has succeeded, unless a stop was earlier: moves `status` from 1 to 2. False: it has
  /// failed.
  [[nodiscard]] bool Confirm(const Session& own, std::atomic<int32_t>* status);

  // ---- A stop, on any thread.
  enum class Stop {
    kOwner,    // the caller stops the current Session and then calls EndStop
    kNothing,  // there is nothing left to do
    kIgnored,  // another stop is running
    kMarked,   // the caller's own start, which is still connecting, will give up
  };
  /// A start that is still connecting gives up first; the call waits for that.
  [[nodiscard]] Stop BeginStop();
  /// The same for a start that has failed, which must stop `own` and no other Session. Waits up to
  /// `patience_us` for a stop that runs, which has done its work then.
  [[nodiscard]] Stop BeginStopOf(const Session& own, int64_t patience_us);
  /// The owner's: returns when the receive thread has taken its last step, and joins it.
  void AwaitThreadEnd();
  /// The owner's last step.
  void EndStop();
  /// For the destructor: refuses further starts, takes back the one that connects, waits until every call has
  /// left and no stop is running, and makes the caller the owner of the last stop.
  void Close();

  // ---- The receive thread.
  /// Its last step: from here on it touches neither the client nor anything of it. `detach`: it goes on to
  /// disconnect_cb, so nobody waits for it. `stopped`: it has finished a stop that message_cb began.
  void EndThread(bool detach, bool stopped);

 private:
  friend struct SelfMqttImplPeer;

  // Connecting: there is no thread yet. Exchanging: the thread exists, and CONNECT's outcome is open.
  // Stopping: exactly one owner stops. Ended: the thread has ended by itself, and a stop is due.
  enum class State { kIdle, kConnecting, kExchanging, kUp, kStopping, kEnded };

  bool AbortStart();
  Stop ClaimStop();
  bool AwaitChange(int64_t deadline_us);

  mutable util::Mutex stop_mutex_;  // guards everything below
  util::Condition changed_;         // any of it has changed
  State state_ = State::kIdle;
  std::shared_ptr<Session> session_;
  util::Thread recv_thread_;
  bool thread_running_ = false;  // its last step is still to come
  bool aborted_ = false;         // a stop has taken back the start that connects
  bool closing_ = false;         // the destructor has begun
  int calls_ = 0;                // calls of StartClient and StopClient that have not returned
  std::thread::id starter_;      // whose start is connecting or exchanging
  util::ScopedFd
      abort_fd_;  // the starting thread alone replaces it, and may read its number without the lock
};

}  // namespace zeb::mqtt
