// Keeps a connection alive, as a product must: reconnects with growing pauses, subscribes again, and repeats
// messages that failed. Each line of standard input enters a bounded queue and is published to PREFIX/reading
// at QoS 1. Messages on PREFIX/command are printed. At the end of the input, the rest of the queue is sent
// and the program ends. A producer that is faster than the network has to wait; nothing accepted is dropped.
#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "mqtt/mqtt_wrapper.h"

namespace {

using std::chrono::milliseconds;
using zeb::mqtt::MqttWrapper;

class Supervisor {
 public:
  Supervisor(MqttWrapper::ConnectOption broker, std::string prefix)
      : broker_(std::move(broker)), prefix_(std::move(prefix)) {
    broker_.clean_session = false;             // the broker keeps commands while we are away...
    broker_.session_expiry_interval = 86'400;  // ...and MQTT 5.0 must be told for how long
    // Runs on the client's thread. A command that takes time belongs in a queue of its own.
    broker_.message_cb = [](MqttWrapper::PublishMessage& message) {
      std::printf("command: %s\n", message.payload.c_str());
      std::fflush(stdout);
    };
    // Only wakes the main loop, which alone starts and stops the client. Shares ownership of the state,
    // because it may still run when the client is gone.
    broker_.disconnect_cb = [state = state_](MqttWrapper*, int) { state->Wake(); };
  }

  /// Accepts a reading, after waiting for room in the queue. Any thread.
  void Accept(std::string reading) {
    std::unique_lock<std::mutex> lock(state_->mutex);
    state_->changed.wait(lock, [this] { return state_->queue.size() < kMostQueued; });
    state_->queue.push_back(std::move(reading));
    state_->changed.notify_all();
  }

  /// Ends the input. Run returns once the queue is empty. Any thread.
  void Finish() {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    state_->finishing = true;
    state_->changed.notify_all();
  }

  /// The main loop.
  void Run() {
    while (AwaitWork()) {
      if (!Established() && !Connect()) {
        Pause();
      } else if (!SendFirst()) {
        (void)client_.StopClient(nullptr);  // whatever failed, a new connection starts clean
        Pause();
      }
    }
    (void)client_.StopClient(nullptr);
  }

 private:
  struct State {
    void Wake() {
      const std::lock_guard<std::mutex> lock(mutex);
      changed.notify_all();
    }
    std::mutex mutex;  // guards all below
    std::condition_variable changed;
    std::deque<std::string> queue;
    bool finishing = false;
  };
  static constexpr size_t kMostQueued = 100;
  static constexpr milliseconds kFirstPause{200};
  static constexpr milliseconds kLongestPause{30'000};
  static constexpr int kEstablished = 2;

  bool Established() const { return client_.GetStatusInfo().status == kEstablished; }

  // Sleeps until there is a reading to send or a connection to make. Returns false when all is done.
  bool AwaitWork() {
    std::unique_lock<std::mutex> lock(state_->mutex);
    const auto ready = [this] { return state_->finishing || !state_->queue.empty() || !Established(); };
    state_->changed.wait(lock, ready);
    return !(state_->finishing && state_->queue.empty());
  }

  bool Connect() {
    (void)client_.StopClient(nullptr);  // cleans up after the lost connection
    if (client_.StartClient(broker_, nullptr) != zeb::kSuccess) return false;
    // Subscribes even if the broker has kept the session: the subscription may be lost, and a second one does
    // no harm.
    MqttWrapper::SubscribeOption wanted;
    wanted.topics[prefix_ + "/command"] = 1;
    MqttWrapper::SubscriptionAck granted;
    if (client_.Subscribe(wanted, &granted) == zeb::kSuccess && granted.reason_code <= 2) return true;
    (void)client_.StopClient(nullptr);  // without the subscription the connection is useless
    return false;
  }

  // The reading stays in the queue until the broker has acknowledged it. If only the acknowledgement is lost,
  // the reading is sent again and arrives twice: that is QoS 1.
  bool SendFirst() {
    MqttWrapper::PublishOption message;
    message.topic = prefix_ + "/reading";
    {
      const std::lock_guard<std::mutex> lock(state_->mutex);
      if (state_->queue.empty()) return true;
      message.payload = state_->queue.front();
    }
    const zeb::Result result = client_.Publish(message);  // without the lock, since it may block for long
    if (result == zeb::kInvalidArgument) {                // too large: it would be refused every time
      std::fprintf(stderr, "refused: a reading of %zu bytes\n", message.payload.size());
    } else if (result != zeb::kSuccess) {
      return false;
    }
    pause_ = kFirstPause;
    const std::lock_guard<std::mutex> lock(state_->mutex);
    state_->queue.pop_front();
    state_->changed.notify_all();
    return true;
  }

  // Sleeps for a random part of the pause, at least half, so that a thousand devices do not return at once.
  void Pause() {
    std::uniform_int_distribution<int64_t> spread(pause_.count() / 2, pause_.count());
    std::this_thread::sleep_for(milliseconds(spread(random_)));
    pause_ = std::min(2 * pause_, kLongestPause);
  }

  MqttWrapper::ConnectOption broker_;
  const std::string prefix_;
  const std::shared_ptr<State> state_ = std::make_shared<State>();
  milliseconds pause_ = kFirstPause;
  std::mt19937 random_{std::random_device{}()};
  MqttWrapper client_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) return std::fprintf(stderr, "usage: %s HOST PORT PREFIX\n", argv[0]), 2;
  ::setlogmask(LOG_UPTO(LOG_WARNING));  // LOG_DEBUG would log every packet, and the password
  MqttWrapper::ConnectOption broker;
  broker.host = argv[1];
  broker.port = std::atoi(argv[2]);
  broker.client_id = std::string("supervisor-") + argv[3];
  broker.protocol = 2;  // MQTT 5.0
  Supervisor supervisor(broker, argv[3]);
  std::thread producer([&supervisor] {
    for (std::string line; std::getline(std::cin, line);) supervisor.Accept(line);
    supervisor.Finish();
  });
  supervisor.Run();
  producer.join();
  return 0;
}
