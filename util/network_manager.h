// Addresses of hosts and interfaces, and news about their loss. Supplied by the platform.
#pragma once

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
  /// non-zero. Blocks for as long as the system's resolver takes.
  static int ResolveHostName(const std::string& name, std::vector<std::string>& ipv4,
                             std::vector<std::string>& ipv6);

  /// Writes the interface's first address of the family (a global one before a link-local one) into
  /// `address`, or leaves it empty when there is none. 0 when an address was found.
  static int GetIpAddress(const std::string& iface, std::string& address, bool ipv6);

  /// Registers the callback, replacing an earlier one. It runs on the platform's thread, with none of the
  /// platform's locks held, until UnsetEventCb.
  void SetEventCb(EventCallback callback);

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
