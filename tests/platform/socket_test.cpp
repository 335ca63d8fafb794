// The client socket without TLS, against peers on loopback. Every wait ends at a deadline.
#include <fcntl.h>
#include <gtest/gtest.h>

#include "tests/platform/loopback.h"
#include "tests/support/deny_device.h"
#include "util/boot_clock.h"

namespace zeb::test {
namespace {

struct Connected {
  explicit Connected(const std::string& host, int32_t timeout_us = 20'000'000)
      : listener(host), client(Connect(listener.path, nullptr, "", timeout_us)), peer(listener.Accept()) {}

  /// Reads until `length` bytes have come, the client closed or the deadline passed.
  [[nodiscard]] std::string PeerReads(size_t length) const {
    std::string all(length, '\0');
    const ssize_t got = ::recv(peer.get(), all.data(), length, MSG_WAITALL);
    return all.substr(0, got < 0 ? 0 : static_cast<size_t>(got));
  }

  Listener listener;
  std::unique_ptr<SocketClient> client;
  util::ScopedFd peer;
};

TEST(Socket, AFailedConnectLeavesAnUnconnectedDescriptorAboveTheStandardStreams) {
  const util::ScopedFd saved(::dup(STDIN_FILENO));
  ::close(STDIN_FILENO);
  for (const char* path : {"", "127.0.0.1", ";1883", "127.0.0.1;", "127.0.0.1;0", "127.0.0.1;65536",
                           "127.0.0.1;12x", "127.0.0.1;-1", "localhost;1883", "127.0.0.1;1" /* refuses */}) {
    SCOPED_TRACE(path);
    const auto client = Connect(path);
    EXPECT_FALSE(client->IsConnected());
    EXPECT_GT(client->GetFd(), STDERR_FILENO);
    EXPECT_EQ(::fcntl(client->GetFd(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(client->Send("x", 1), -1);
  }
  ::dup2(saved.get(), STDIN_FILENO);
}

TEST(Socket, ConnectGivesUpOnASilentPeerAtTheDeadline) {
  const Listener full("127.0.0.1", 0);  // whose queue takes one or two; the kernel drops what comes later
  std::vector<std::unique_ptr<SocketClient>> clients;
  int64_t start_us = 0;
  do {
    start_us = util::MonotonicUs();
    clients.push_back(Connect(full.path, nullptr, "", 200'000));
  } while (clients.back()->IsConnected() && clients.size() < 8);
  EXPECT_FALSE(clients.back()->IsConnected());
  EXPECT_NEAR(static_cast<double>(util::MonotonicUs() - start_us), 5'100'000, 4'900'000);  // 0.2 s to 10 s
}

TEST(Socket, MovesBytesOverBothFamiliesUntilThePeerEnds) {
  for (const bool reset : {false, true}) {
    Connected pair(reset ? "::1" : "127.0.0.1");
    char data[8] = {};
    EXPECT_EQ(pair.client->Recv(data, sizeof data), SocketClient::k_nothing_now);
    EXPECT_EQ(pair.client->Send("unit", 4), 4);
    EXPECT_EQ(pair.PeerReads(4), "unit");
    ASSERT_EQ(::send(pair.peer.get(), "back", 4, 0), 4);
    EXPECT_EQ(AwaitRecv(*pair.client, data, sizeof data), 4);
    EXPECT_STREQ(data, "back");
    const linger at_once{1, 0};
    if (reset) ::setsockopt(pair.peer.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    pair.peer.Reset();
    EXPECT_EQ(AwaitRecv(*pair.client, data, sizeof data), reset ? -1 : 0);
    while (pair.client->Send("x", 1) >= 0) continue;  // a plain write would end the process here
  }
}

TEST(Socket, ChosenInterface) {
  const Listener listener;
  for (const bool deny : {false, true}) {  // then the interface's own address takes the device's place
    for (const std::string iface : {"lo", "zeb-none", "name-beyond-15-characters"}) {
      const DenyDevice denied(deny);
      const auto client = Connect(listener.path, nullptr, "", 5'000'000, iface);
      EXPECT_EQ(client->IsConnected(), iface == "lo") << iface << deny;
    }
  }
}

TEST(Socket, ACutUnitIsTheLastOne) {
  Connected pair("127.0.0.1", 200'000);
  const std::string unit(32 << 20, 'u');
  const ssize_t sent = pair.client->Send(unit.data(), unit.size());
  ASSERT_GT(sent, 0);
  ASSERT_LT(sent, static_cast<ssize_t>(unit.size()));
  auto read = std::async(std::launch::async, [&] { return pair.PeerReads(unit.size()).size(); });
  ASSERT_TRUE(AwaitEvent(pair.client->GetFd(), POLLOUT));  // there is room again
  EXPECT_EQ(pair.client->Send("next", 4), -1);
  pair.client->Shutdown();
  EXPECT_EQ(read.get(), static_cast<size_t>(sent));
}

TEST(Socket, UnitsOfThreadsNeverInterleave) {
  Connected pair("127.0.0.1");
  auto senders = SendUnits(*pair.client);
  EXPECT_TRUE(IsWholeUnits(pair.PeerReads(k_stream)));
  for (auto& sender : senders) EXPECT_TRUE(sender.get());
}

TEST(Socket, ShutdownReleasesABlockedSender) {
  Connected pair("127.0.0.1", 2'000'000'000);
  const std::string unit(64 << 20, 'u');
  auto sender = std::async(std::launch::async, [&] { return pair.client->Send(unit.data(), unit.size()); });
  ASSERT_TRUE(AwaitEvent(pair.peer.get(), POLLIN));  // it is at it
  pair.client->Shutdown();
  ASSERT_EQ(sender.wait_for(k_deadline), std::future_status::ready);
  EXPECT_LT(sender.get(), static_cast<ssize_t>(unit.size()));
}

}  // namespace
}  // namespace zeb::test
