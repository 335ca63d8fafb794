// What a platform promises above all: of its sockets, address literals and event callbacks. Every wait ends
// at a deadline.
#include <gtest/gtest.h>

#include "tests/support/loopback.h"
#include "util/network_manager.h"

namespace zeb::test {
namespace {

using util::NetworkManager;

struct Connected {
  explicit Connected(const std::string& host, int32_t timeout_us = 20'000'000)
      : listener(host), client(Connect(listener.path, nullptr, "", timeout_us)), peer(listener.Accept()) {}

  Listener listener;
  std::unique_ptr<SocketClient> client;
  util::ScopedFd peer;
};

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

TEST(NetworkManager, ARegistrationMayEndInsideItsCallAndElseWaitsForIt) {
  const auto raise = [] {
    util::EventDic event(util::EventDic::k_address_lost);
    NetworkManager::RaiseEvent(event);
  };
  NetworkManager inside, outside;
  std::future<void> unset;
  bool waits = false;
  int inside_calls = 0, calls = 0;
  inside.SetEventCb([&](util::EventDic&) {
    ++inside_calls;
    inside.UnsetEventCb();
  });
  outside.SetEventCb([&](util::EventDic&) {
    if (++calls > 1) return;
    unset = std::async(std::launch::async, [&] { outside.UnsetEventCb(); });
    for (int seen = 0; seen != calls;) {  // until an event reaches it no more: unset is under way
      seen = calls;
      raise();
    }
    waits = unset.wait_for(std::chrono::milliseconds(50)) == std::future_status::timeout;
  });
  raise();
  unset.get();
  EXPECT_TRUE(waits);
  EXPECT_EQ(inside_calls, 1);
}

TEST(Socket, AFailedConnectLeavesAnUnconnectedDescriptor) {
  const Listener listener;
  const std::string too_large = "127.0.0.1;" + std::to_string(listener.port + 65'536);
  for (const std::string& path : std::initializer_list<std::string>{
           too_large, "", "127.0.0.1", ";1883", "127.0.0.1;", "127.0.0.1;0", "127.0.0.1;65536",
           "127.0.0.1;12x", "127.0.0.1;-1", "localhost;1883", "127.0.0.1;1" /* refuses */}) {
    SCOPED_TRACE(path);
    const auto client = Connect(path);
    EXPECT_FALSE(client->IsConnected());
    EXPECT_GE(client->GetFd(), 0);
    EXPECT_EQ(client->Send("x", 1), -1);
  }
}

TEST(Socket, ASendToAPeerThatHasGoneFailsWithoutASignal) {
  Connected pair("::1");
  pair.peer.Reset();
  while (pair.client->Send("x", 1) >= 0) continue;  // a plain write would end the process here
}

TEST(Socket, AUnitIsCutByTheTimeOutOrAShutdownAndIsTheLastOne) {
  const std::string unit(32 << 20, 'u');
  for (const bool shutdown : {false, true}) {
    Connected pair("127.0.0.1", shutdown ? 2'000'000'000 : 200'000);
    auto sender = std::async(std::launch::async, [&] { return pair.client->Send(unit.data(), unit.size()); });
    ASSERT_TRUE(AwaitEvent(pair.peer.get(), POLLIN));  // it is at it
    if (shutdown) pair.client->Shutdown();
    ASSERT_EQ(sender.wait_for(k_deadline), std::future_status::ready);
    const ssize_t sent = sender.get();
    EXPECT_TRUE(sent > 0 && sent < static_cast<ssize_t>(unit.size())) << sent;
    std::string read(unit.size(), '\0');
    auto reader = std::async(std::launch::async,
                             [&] { return ::recv(pair.peer.get(), read.data(), read.size(), MSG_WAITALL); });
    ASSERT_TRUE(AwaitEvent(pair.client->GetFd(), POLLOUT));  // there is room again
    EXPECT_EQ(pair.client->Send("next", 4), -1);
    pair.client->Shutdown();
    EXPECT_EQ(reader.get(), sent);
  }
}

}  // namespace
}  // namespace zeb::test
