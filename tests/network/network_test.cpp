// Interfaces, addresses and names as a device meets them: which uplink a connection takes, what the loss of
// one does to it, and what nobody answers.
#include <sys/socket.h>
#include <sys/syscall.h>

#include <filesystem>
#include <fstream>

#include "tests/network/uplinks.h"
#include "tests/session/session.h"
#include "util/network_manager.h"

static std::atomic<bool> deny_device{false};

/// Takes the place of the system's: a process without the right to bind a socket to a device.
extern "C" int setsockopt(int fd, int level, int name, const void* value, socklen_t length) noexcept {
  const bool denied = deny_device && level == SOL_SOCKET && name == SO_BINDTODEVICE;
  if (denied) errno = EPERM;
  return denied ? -1 : static_cast<int>(::syscall(SYS_setsockopt, fd, level, name, value, length));
}

namespace zeb::test {
namespace {

constexpr int k_port = 1883;

std::unique_ptr<Session> SessionAt(const std::string& peer, std::map<MsgType, Handler> handlers = {},
                                   int32_t timeout_s = 20) {
  auto session = Inside(
      peer, [&] { return std::make_unique<Session>(k_mqtt311, std::move(handlers), timeout_s, k_port); });
  session->option.host = "192.0.2.1";
  return session;
}

/// Other contents for a file of /etc, seen by this test alone.
void Replace(const std::string& file, const std::string& text) {
  const std::string own = "/run/" + std::filesystem::path(file).filename().string();
  std::ofstream(own) << text;
  Shell("mount --bind " + own + " " + file);
}

TEST_F(Uplinks, TheInterfaceDecidesWhichBrokerAnswers) {
  const auto first = SessionAt("peer0");
  const auto second = SessionAt("peer1");
  const struct {
    const char *host, *iface;
    bool first;
  } cases[] = {{"192.0.2.1", "", true},      {"192.0.2.1", "up0", true},    {"192.0.2.1", "up1", false},
               {"2001:db8::1", "up0", true}, {"2001:db8::1", "up1", false}, {"fe80::1%up0", "", true},
               {"fe80::1%up1", "up1", false}};
  for (const bool deny : {true, false}) {
    deny_device = deny;
    for (const auto& c : cases) {
      SCOPED_TRACE(c.host + std::string(c.iface));
      Session& expected = c.first ? *first : *second;
      const size_t before = expected.broker.Count(MsgType::CONNECT);
      auto option = first->option;
      option.host = c.host;
      option.iface_name = c.iface;
      ASSERT_EQ(first->client.StartClient(option, nullptr), kSuccess);
      EXPECT_EQ(expected.broker.Count(MsgType::CONNECT), before + 1);
      EXPECT_EQ(first->Stop(), kSuccess);
    }
  }
}

TEST_F(Uplinks, OnlyTheLossOfTheLastAddressEndsTheSessionAndAPublishThatWaits) {
  const struct {
    const char *host, *other, *last;
  } cases[] = {{"192.0.2.1", "addr del 10.0.1.2/24 dev up1", "addr del 10.0.0.2/24 dev up0"},
               {"192.0.2.1", "link set up1 down", "link set up0 down"},
               {"192.0.2.1", "link del up1", "link del up0"},
               {"192.0.2.1", "link set up1 down", "-n peer0 link set net down"},  // the carrier goes
               {"2001:db8::1", "addr del fd00:1::2/64 dev up1", "addr del fd00:0::2/64 dev up0"},
               {"2001:db8::1", "link set up1 down", "link set up0 down"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.last);
    const auto session = SessionAt("peer0", {{MsgType::PUBLISH, Ignore}}, 600);
    session->option.host = c.host;
    ASSERT_EQ(session->Start(), kSuccess);
    auto publish = session->PublishAsync(1);
    ASSERT_EQ(session->broker.Await(MsgType::PUBLISH).type(), MsgType::PUBLISH);
    Ip(c.other);
    EXPECT_TRUE(session->Healthy());
    EXPECT_EQ(session->ends.Await(0).size(), 0U);
    Ip(c.last);
    const double seconds = Seconds([&] { EXPECT_EQ(session->ends.Await(1), std::vector<int>{2}); });
    EXPECT_LT(seconds, 5.0);  // milliseconds mostly; the kernel reports a lost carrier within a second
    EXPECT_EQ(session->client.GetStatusInfo().dis_reason, 2);
    ASSERT_EQ(publish.wait_for(k_deadline), std::future_status::ready);
    EXPECT_EQ(publish.get(), kFailure);
    Build();
  }
}

TEST_F(Uplinks, ARegistrationLearnsThatItsConnectionsAddressHasGone) {
  const auto session = SessionAt("peer0");
  const auto socket = Connect("192.0.2.1;1883");
  ASSERT_TRUE(socket->IsConnected());
  const std::pair<const char*, const char*> cases[] = {{"addr add 10.0.0.3/24 dev up0", ""},
                                                       {"-n peer0 link set net down", ""},  // still its own
                                                       {"addr del 10.0.0.2/24 dev up0", "4"}};
  for (const auto& [change, expected] : cases) {
    std::string lost;
    util::NetworkManager manager;
    Ip(change);
    manager.SetEventCb([&](util::EventDic& event) { lost += event.GetParam(util::EventDic::k_ip_version); },
                       socket->GetFd());
    EXPECT_EQ(lost, expected) << change;  // at once; the host still has another address
  }
}

TEST_F(Uplinks, NamesAreResolvedForTheInterfaceAndTheirAddressesTriedInOrder) {
  Replace("/etc/hosts",
          "192.0.2.1 v4.test dual.test spare.test\n2001:db8::1 v6.test dual.test\n10.0.0.2 spare.test\n");
  const auto session = SessionAt("peer0");
  const auto other = SessionAt("peer1");
  Ip("link add bare type veth peer name barer");
  Ip("-6 addr flush dev up1");
  const struct {
    const char *host, *iface;
    Result result;
    int family;
    const char* line;
  } cases[] = {
      {"v4.test", "", kSuccess, AF_INET, ""},
      {"v6.test", "", kNoAddress, 0, ""},
      {"dual.test", "", kSuccess, AF_INET, ""},
      {"dual.test", "up0", kSuccess, AF_INET6, ""},
      {"dual.test", "up1", kSuccess, AF_INET, ""},
      {"v4.test", "up0", kSuccess, AF_INET, ""},
      {"v6.test", "up1", kNoAddress, 0, "There's no target address found for iface name up1"},
      {"192.0.2.1", "up9", kInvalidArgument, AF_INET, "cannot bind to interface up9"},
      {"192.0.2.1", "up0-beyond-15-characters", kInvalidArgument, AF_INET, "is too long"},
      {"v4.test", "bare", kNoAddress, 0, "There's no ip addresses for bare"},
      {"no.test", "", kInvalidArgument, 0, "Cannot Resolv no.test into ip address"},
      {"spare.test", "", kSuccess, AF_INET, "connect to 10.0.0.2 port 1883 failed: Connection refused"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.host + std::string(c.iface));
    const LogCapture log;
    session->option.host = c.host;
    session->option.iface_name = c.iface;
    EXPECT_EQ(session->Start(), c.result);
    EXPECT_TRUE(*c.line == 0 || log.Contains(c.line));
    sockaddr_storage local{};
    socklen_t length = sizeof local;
    ::getsockname(Peer::SocketFd(session->client), reinterpret_cast<sockaddr*>(&local), &length);
    EXPECT_EQ(local.ss_family, c.family);
    (void)session->Stop();  // there may be nothing to stop
  }
}

TEST_F(Uplinks, WhatNobodyAnswersEndsAtTheTimeOutOrWithAStop) {
  Replace("/etc/resolv.conf", "nameserver 10.0.0.99\noptions timeout:30 attempts:1\n");
  std::map<MsgType, Handler> silence;  // whatever a TLS handshake looks like
  for (int type = 0; type < 16; ++type) silence[static_cast<MsgType>(type)] = Ignore;
  const auto session = SessionAt("peer0", silence);
  const std::tuple<const char*, bool, Result> cases[] = {{"10.0.0.99", false, kInvalidArgument},
                                                         {"asked.test", false, kInvalidArgument},
                                                         {"192.0.2.1", true, kInvalidArgument},
                                                         {"192.0.2.1", false, kFailure}};
  for (const auto& [host, tls, result] : cases) {
    SCOPED_TRACE(host);
    session->option.host = host;
    session->option.tls = tls;
    session->option.timeout = 1;
    Result failed = kSuccess;
    double seconds = Seconds([&] { failed = session->Start(); });
    EXPECT_EQ(failed, result);
    EXPECT_GT(seconds, 0.9);
    EXPECT_LT(seconds, 10.0);

    session->option.timeout = 600;
    auto start = std::async(std::launch::async, [&] { return session->Start(); });
    seconds = Seconds([&] {
      while (!IsReady(start)) EXPECT_NE(session->Stop(), kFailure);  // the first ones may come too early
    });
    EXPECT_LT(seconds, 10.0);
    EXPECT_NE(start.get(), kSuccess);
    (void)session->Stop();
    EXPECT_EQ(Peer::SocketFd(session->client), -1);
  }
}

}  // namespace
}  // namespace zeb::test
