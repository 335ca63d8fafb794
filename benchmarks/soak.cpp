// Publishes numbered messages for a given time, plain and over TLS, through a broker that comes and goes.
// Every message that the library has confirmed must arrive. Prints a line every half minute, and the result.
#include <malloc.h>
#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "mqtt/mqtt_wrapper.h"

namespace {

using zeb::mqtt::MqttWrapper;
using Clock = std::chrono::steady_clock;
constexpr int kReportSeconds = 30;
constexpr int kSettleSeconds = 30;  // for messages still on their way at the end
constexpr auto kPause = std::chrono::milliseconds(2);
constexpr auto kRetry = std::chrono::milliseconds(200);

/// Keeps for each message how often it arrived, and whether the library confirmed it. Any thread.
class Books {
 public:
  void Confirm(size_t number, bool confirmed) {
    const std::lock_guard<std::mutex> lock(mutex_);
    At(number).confirmed = confirmed;
    ++(confirmed ? confirmed_ : failed_);
  }
  void Arrive(size_t number) {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++arrived_;
    if (++At(number).arrivals > 1) ++duplicates_;
  }
  size_t Lost() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<size_t>(std::count_if(entries_.begin(), entries_.end(), [](const Entry& entry) {
      return entry.confirmed && entry.arrivals == 0;
    }));
  }
  std::string Text() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::to_string(confirmed_) + " confirmed, " + std::to_string(failed_) + " failed, " +
           std::to_string(arrived_) + " received, " + std::to_string(duplicates_) + " again";
  }

 private:
  struct Entry {
    uint16_t arrivals = 0;
    bool confirmed = false;
  };
  Entry& At(size_t number) {
    if (number >= entries_.size()) entries_.resize(number + 1);
    return entries_[number];
  }
  std::mutex mutex_;  // guards all below
  std::vector<Entry> entries_;
  size_t confirmed_ = 0, failed_ = 0, arrived_ = 0, duplicates_ = 0;
};

/// One publisher and one subscriber on the same port.
class Pair {
 public:
  Pair(const char* name, int port, const char* ca_file, int protocol) : name_(name) {
    option_.host = "127.0.0.1";
    option_.port = port;
    option_.protocol = protocol;
    option_.tls = ca_file != nullptr;
    if (ca_file != nullptr) option_.ca_file = ca_file;
    option_.clean_session = false;  // the broker keeps messages for the subscriber
    option_.session_expiry_interval = 3'600;
    option_.keep_alive = 10;
    option_.timeout = 5;
    subscriber_thread_ = std::thread([this] { RunSubscriber(); });
    publisher_thread_ = std::thread([this] { RunPublisher(); });
  }
  void EndPublishing() {
    publishing_ = false;
    publisher_thread_.join();
  }
  void End() {
    subscribing_ = false;
    subscriber_thread_.join();
  }
  Books& books() { return books_; }
  const char* name() const { return name_; }

 private:
  void RunPublisher() {
    MqttWrapper client;
    auto option = option_;
    option.client_id = std::string("soak-publisher-") + name_;
    while (publishing_ && !subscribed_) std::this_thread::sleep_for(kRetry);
    for (size_t number = 0; publishing_;) {
      if (client.GetStatusInfo().status != 2) {
        (void)client.StopClient(nullptr);
        if (client.StartClient(option, nullptr) != zeb::kSuccess) std::this_thread::sleep_for(kRetry);
        continue;
      }
      MqttWrapper::PublishOption message;
      message.topic = std::string("soak/") + name_;
      message.payload = std::to_string(number);
      message.qos = static_cast<uint8_t>(1 + number % 2);
      books_.Confirm(number, client.Publish(message) == zeb::kSuccess);
      ++number;
      std::this_thread::sleep_for(kPause);
    }
    (void)client.StopClient(nullptr);
  }

  void RunSubscriber() {
    MqttWrapper client;
    auto option = option_;
    option.client_id = std::string("soak-subscriber-") + name_;
    option.message_cb = [this](MqttWrapper::PublishMessage& message) {
      books_.Arrive(std::strtoul(message.payload.c_str(), nullptr, 10));
    };
    while (subscribing_) {
      if (client.GetStatusInfo().status == 2) {
        std::this_thread::sleep_for(kRetry);
        continue;
      }
      (void)client.StopClient(nullptr);
      MqttWrapper::SubscribeOption topics;
      topics.topics[std::string("soak/") + name_] = 2;
      if (client.StartClient(option, nullptr) == zeb::kSuccess)
        subscribed_ = client.Subscribe(topics, nullptr) == zeb::kSuccess || subscribed_;
      std::this_thread::sleep_for(kRetry);
    }
    (void)client.StopClient(nullptr);
  }

  const char* const name_;
  MqttWrapper::ConnectOption option_;
  Books books_;
  std::atomic<bool> publishing_{true}, subscribing_{true}, subscribed_{false};
  std::thread subscriber_thread_, publisher_thread_;
};

long ResidentKb() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.compare(0, 6, "VmRSS:") == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  return 0;
}

long Descriptors() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

void Report(Clock::time_point begin, const std::vector<std::unique_ptr<Pair>>& pairs) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin).count();
  std::printf("%4lld s  %ld kB resident (%zu kB in use), %ld descriptors\n", static_cast<long long>(seconds),
              ResidentKb(), ::mallinfo2().uordblks / 1'024, Descriptors());
  for (const auto& pair : pairs) std::printf("        %-5s %s\n", pair->name(), pair->books().Text().c_str());
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: %s SECONDS PORT TLS-PORT CA-FILE   (of a broker on 127.0.0.1)\n", argv[0]);
    return 2;
  }
  ::setlogmask(LOG_UPTO(LOG_WARNING));  // as a product would do
  const auto begin = Clock::now();
  const auto end = begin + std::chrono::seconds(std::atoi(argv[1]));
  std::vector<std::unique_ptr<Pair>> pairs;
  pairs.push_back(std::make_unique<Pair>("plain", std::atoi(argv[2]), nullptr, 2));
  pairs.push_back(std::make_unique<Pair>("tls", std::atoi(argv[3]), argv[4], 1));
  while (Clock::now() < end) {
    std::this_thread::sleep_until(std::min(end, Clock::now() + std::chrono::seconds(kReportSeconds)));
    Report(begin, pairs);
  }
  for (const auto& pair : pairs) pair->EndPublishing();
  size_t lost = 1;
  for (int look = 0; look < kSettleSeconds && lost > 0; ++look) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    lost = 0;
    for (const auto& pair : pairs) lost += pair->books().Lost();
  }
  for (const auto& pair : pairs) pair->End();
  Report(begin, pairs);
  std::printf("%zu confirmed messages lost\n", lost);
  return lost == 0 ? 0 : 1;
}
