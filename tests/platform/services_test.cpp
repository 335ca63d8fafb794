// Address literals and event callbacks; threads without signals.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <future>

#include "util/network_manager.h"
#include "util/thread.h"

namespace zeb::test {
namespace {

using util::EventDic;
using util::NetworkManager;

void RaiseLoss() {
  EventDic event(EventDic::k_address_lost);
  NetworkManager::RaiseEvent(event);
}

TEST(NetworkManager, LiteralsOfEachFamily) {
  const std::vector<std::string> ipv4{"127.0.0.1"};
  const std::vector<std::string> ipv6{"::1", "fe80::1%eth0", "::ffff:1.2.3.4"};
  const std::vector<std::string> none{"",      "127.1",        "256.0.0.1", "fe80::1%",   "fe80::1%a%b",
                                      "[::1]", "127.0.0.1%lo", "localhost", {"::1\0x", 5}};
  for (const auto* list : {&ipv4, &ipv6, &none}) {
    for (const std::string& text : *list) {
      EXPECT_EQ(NetworkManager::IsValidAddress(text, false), list == &ipv4) << text;
      EXPECT_EQ(NetworkManager::IsValidAddress(text, true), list == &ipv6) << text;
    }
  }
}

TEST(NetworkManager, UnsetWaitsForARunningCall) {
  NetworkManager manager;
  std::future<void> unset;
  bool waits = false;
  int calls = 0;
  manager.SetEventCb([&](EventDic&) {
    if (++calls > 1) return;
    unset = std::async(std::launch::async, [&] { manager.UnsetEventCb(); });
    for (int seen = 0; seen != calls;) {  // until an event reaches it no more: unset is under way
      seen = calls;
      RaiseLoss();
    }
    waits = unset.wait_for(std::chrono::milliseconds(50)) == std::future_status::timeout;
  });
  RaiseLoss();
  unset.get();
  EXPECT_TRUE(waits);
}

TEST(NetworkManager, ACallbackMayEndItsOwnRegistration) {
  NetworkManager manager;
  int calls = 0;
  manager.SetEventCb([&](EventDic&) {
    ++calls;
    manager.UnsetEventCb();
  });
  RaiseLoss();
  RaiseLoss();
  EXPECT_EQ(calls, 1);
}

TEST(Thread, RunsWithSignalsBlockedAndLeavesTheCallersMask) {
  const auto blocked = [](int signal) {
    sigset_t mask;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return ::sigismember(&mask, signal) == 1;
  };
  bool inside = false;
  util::Thread thread;
  ASSERT_EQ(thread.Start([&] { inside = blocked(SIGTERM) && blocked(SIGUSR1); }), kSuccess);
  thread.Join();
  EXPECT_TRUE(inside);
  EXPECT_FALSE(blocked(SIGTERM));  // the caller's mask is as it was
}

}  // namespace
}  // namespace zeb::test
