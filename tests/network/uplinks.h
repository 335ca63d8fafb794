// Two uplinks of a device, each with a network of its own at the other end, in namespaces that belong to the
// test alone.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>

#include <future>

#include "tests/support/temp_files.h"
#include "util/scoped_fd.h"

namespace zeb::test {

/// Set by the program's main once it runs in a network and mount namespace of its own.
constexpr char k_isolated[] = "ZEB_TEST_ISOLATED";

inline void Ip(const std::string& command) { Shell("ip " + command); }

/// Runs `make` on a thread inside "peer0" or "peer1": the sockets and threads that it creates stay there.
template <typename Make>
auto Inside(const std::string& peer, Make make) {
  return std::async(
             std::launch::async,
             [&] {
               const util::ScopedFd space(::open(("/run/netns/" + peer).c_str(), O_RDONLY | O_CLOEXEC));
               EXPECT_EQ(::setns(space.get(), CLONE_NEWNET), 0);
               return make();
             })
      .get();
}

/// The device has 10.0.N.2, fd00:N::2 and fe80::2 on interface "upN"; at the other end, in namespace "peerN",
/// the network has the same addresses ending in 1. On either network a broker is at 192.0.2.1 and
/// 2001:db8::1; packets go there over up0 unless they must leave through up1. Nobody ever answers at
/// 10.0.0.99.
class Uplinks : public testing::Test {
 protected:
  void SetUp() override {
    if (std::getenv(k_isolated) == nullptr) GTEST_SKIP() << "no right to make network namespaces";
    Build();
  }
  /// Anew, whatever an earlier test has left.
  static void Build() {
    Shell(R"(ip link set lo up
for n in 0 1; do
  for old in "link del up$n" "netns del peer$n" "rule del table 10$n" "-6 rule del table 10$n"; do
    ip $old 2>/dev/null || true
  done
  ip netns add peer$n
  ip link add up$n type veth peer name net netns peer$n
  ip link set up$n addrgenmode none
  ip -n peer$n link set net addrgenmode none
  for end in "2 up$n" "1 net -n peer$n"; do
    set -- $end
    host=$1 link=$2; shift 2
    ip "$@" addr add 10.0.$n.$host/24 dev $link
    ip "$@" addr add fd00:$n::$host/64 dev $link nodad
    ip "$@" addr add fe80::$host/64 dev $link nodad
    ip "$@" link set $link up
  done
  ip -n peer$n link set lo up
  ip -n peer$n addr add 192.0.2.1/32 dev lo
  ip -n peer$n addr add 2001:db8::1/128 dev lo nodad
  for table in main 10$n; do
    ip route add 192.0.2.1 via 10.0.$n.1 dev up$n metric 1$n table $table
    ip route add 2001:db8::1 via fd00:$n::1 dev up$n metric 1$n table $table
  done
  ip rule add from 10.0.$n.2 table 10$n
  ip -6 rule add from fd00:$n::2 table 10$n
done
ip neigh add 10.0.0.99 lladdr 02:00:00:00:00:99 dev up0 nud permanent)");
  }
};

}  // namespace zeb::test
