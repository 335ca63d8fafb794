// Addresses of hosts and interfaces, and news about their loss. Supplied by the platform.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "util/event_dic.h"

namespace zeb::util {

/// The queries may be called from any thread. Each object registers at most one event callback.
class NetworkManager {
 public:
  using EventCallback = std::function<void(EventDic&)>;

  NetworkManager();
  /// Unregisters the callback first.
  ~NetworkManager();
  NetworkManager(const NetworkManager&) = delete;
  NetworkManager& operator=(const NetworkManager&) = delete;

  /// Whether `address` is a literal of the family: IPv6 (a zone as in "fe80::1%eth0" included) when `ipv6`,
  /// else IPv4 in dotted form. Never blocks.
  [[nodiscard]] static bool IsValidAddress(const std::string& address, bool ipv6);

  /// Fills both lists with the name's addresses in the resolver's order of preference. 0 on success, else
  /// non-zero. Gives up after `timeout_us` microseconds (negative: no limit), and as soon as `cancel_fd`
  /// (-1: none; not owned, not read) is readable.
  static int ResolveHostName(const std::string& name, std::vector<std::string>& ipv4,
                             std::vector<std::string>& ipv6, int64_t timeout_us = -1, int cancel_fd = -1);

  /// Writes the interface's first address of the family (a global one before a link-local one) into
  /// `address`, or leaves it empty when there is none. 0 when an address was found.
  static int GetIpAddress(const std::string& iface, std::string& address, bool ipv6);

  /// Registers the callback, replacing an earlier one, until UnsetEventCb. It is told of
  /// EventDic::k_address_lost when the host loses its last usable address of an IP version, on the
  /// platform's thread and with none of the platform's locks held. `socket_fd` (-1: none; only looked at
  /// during the call) is the connection that the callback is for: when its own local address is already
  /// gone, the callback learns of that on the calling thread, before this returns.
  void SetEventCb(EventCallback callback, int socket_fd = -1);

  /// Unregisters the callback and waits for a call of it that is running, unless called from that very
  /// call: afterwards it never runs again.
  void UnsetEventCb();

  /// Hands an event to every registered callback, on the calling thread.
  static void RaiseEvent(EventDic& event);

 private:
  struct Registration;
  std::shared_ptr<Registration> registration_;  // touched by SetEventCb and UnsetEventCb's caller alone
};

}  // namespace zeb::util
