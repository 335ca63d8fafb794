// Looks up addresses of hosts and interfaces, and reports when the host loses its own. Supplied by the
// platform.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "util/event_dic.h"

namespace zeb::util {

/// The static functions may be called on any thread. Each object registers at most one event callback, and
/// its member functions are called by one thread at a time.
class NetworkManager {
 public:
  using EventCallback = std::function<void(EventDic&)>;

  NetworkManager();
  /// Unregisters the callback, as UnsetEventCb does.
  ~NetworkManager();
  NetworkManager(const NetworkManager&) = delete;
  NetworkManager& operator=(const NetworkManager&) = delete;

  /// Whether `address` is a literal of the family: an IPv6 address if `ipv6` is true (a zone as in
  /// "fe80::1%eth0" is allowed), otherwise a dotted IPv4 address. Never blocks.
  [[nodiscard]] static bool IsValidAddress(const std::string& address, bool ipv6);

  /// Replaces the content of both lists with the name's addresses, in the resolver's order of preference.
  /// Returns 0 on success. Gives up after `timeout_us` microseconds (negative: no limit), or as soon as
  /// `cancel_fd` (-1: none) becomes readable. `cancel_fd` is neither read nor closed.
  static int ResolveHostName(const std::string& name, std::vector<std::string>& ipv4,
                             std::vector<std::string>& ipv6, int64_t timeout_us = -1, int cancel_fd = -1);

  /// Sets `address` to the interface's first address of the family, preferring global to link-local ones, and
  /// returns 0. If there is none, `address` becomes empty and the result is not 0.
  static int GetIpAddress(const std::string& iface, std::string& address, bool ipv6);

  /// Registers `callback` until UnsetEventCb; it replaces an earlier one. When the host loses its last usable
  /// address of an IP version, the platform's thread calls it with EventDic::k_address_lost and holds none of
  /// its locks meanwhile. `socket_fd` is the connection that the callback belongs to (-1: none); it is used
  /// only during this call. If the local address of `socket_fd` is already gone, `callback` is called on the
  /// calling thread before this function returns.
  void SetEventCb(EventCallback callback, int socket_fd = -1);

  /// Unregisters the callback and waits for a running call of it to return, unless called from within
  /// that call. The callback is never called again.
  void UnsetEventCb();

  /// Calls every registered callback with `event`, on the calling thread.
  static void RaiseEvent(EventDic& event);

 private:
  struct Registration;
  std::shared_ptr<Registration> registration_;  // used only by SetEventCb and UnsetEventCb
};

}  // namespace zeb::util
