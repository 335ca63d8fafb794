// The watcher's thread sleeps until the kernel reports a change of a link or an address, then looks up which
// addresses are left. It ignores the content of the reports: after a burst, even one that overflowed, only
// the outcome counts.
#include "platform/linux/network_watcher.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include "platform/linux/host_addresses.h"
#include "util/event_dic.h"
#include "util/log.h"
#include "util/network_manager.h"
#include "util/scoped_fd.h"

namespace zeb::util {
namespace {

// Returns an invalid descriptor and sets errno on failure.
ScopedFd OpenRoutingSocket() {
  ScopedFd fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (!fd.valid()) return fd;
  sockaddr_nl groups{};
  groups.nl_family = AF_NETLINK;
  groups.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
  if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&groups), sizeof groups) == 0) return fd;
  const int error = errno;
  fd.Reset();
  errno = error;
  return fd;
}

// Discards all pending reports. Returns false if no report will ever come again.
bool TakeReports(int fd) {
  constexpr int k_enough = 1'000;  // the rest wakes the thread again
  char report[8];                  // the kernel discards the rest of a report
  for (int i = 0; i < k_enough; ++i)
    if (::recv(fd, report, sizeof report, 0) <= 0)
      return errno == EAGAIN || errno == EINTR || errno == ENOBUFS;
  return true;
}

void RaiseLoss(const char* ip_version) {
  ZEB_LOG(LOG_WARNING, "the host has lost its last IPv%s address", ip_version);
  EventDic event(EventDic::k_address_lost);
  event.SetParam(EventDic::k_ip_version, ip_version);
  NetworkManager::RaiseEvent(event);
}

}  // namespace

/// Shared with the thread, which may outlive the watcher if a callback ended it.
struct NetworkWatcher::State {
  ScopedFd reports;
  ScopedFd stop;          // becomes readable when the thread must end
  UsableVersions usable;  // as last reported; once the thread runs, used only by it
  bool look_due = false;  // a lookup is still due; likewise

  void Run();
  void Look();
  static void Tell(bool* told, bool now, const char* ip_version);
};

void NetworkWatcher::State::Run() {
  constexpr int k_retry_ms = 1'000;
  for (;;) {
    pollfd watched[] = {{reports.get(), POLLIN, 0}, {stop.get(), POLLIN, 0}};
    const int ready = ::poll(watched, 2, look_due ? k_retry_ms : -1);
    if (ready < 0) continue;  // a signal, the only possible failure
    if (watched[1].revents != 0) return;
    const bool goes_on = ready == 0 || TakeReports(reports.get());
    look_due = true;
    try {
      Look();
    } catch (const std::exception& error) {
      ZEB_LOG(LOG_ERR, "a network event waits: %s", error.what());
    }
    if (goes_on) continue;
    ZEB_LOG(LOG_ERR, "the network is not watched any more");
    return;
  }
}

void NetworkWatcher::State::Look() {
  UsableVersions now;
  if (!LookUpUsableVersions(&now)) return;
  Tell(&usable.ipv4, now.ipv4, "4");
  Tell(&usable.ipv6, now.ipv6, "6");
  look_due = false;
}

// Changes `*told` last, so that a loss that could not be reported is reported again.
void NetworkWatcher::State::Tell(bool* told, bool now, const char* ip_version) {
  if (*told && !now) RaiseLoss(ip_version);
  *told = now;
}

std::unique_ptr<NetworkWatcher> NetworkWatcher::Start() {
  const auto state = std::make_shared<State>();
  state->reports = OpenRoutingSocket();  // before the first lookup, so that no change is missed
  if (state->reports.valid()) state->stop = ScopedFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  const int error = errno;
  if (!state->stop.valid()) {
    ZEB_LOG(LOG_WARNING, "the network is not watched: %s", std::generic_category().message(error).c_str());
    return nullptr;
  }
  state->look_due = !LookUpUsableVersions(&state->usable);
  std::unique_ptr<NetworkWatcher> watcher(new NetworkWatcher(state));
  if (watcher->thread_.Start([state] { state->Run(); }) != kSuccess) return nullptr;
  return watcher;
}

void NetworkWatcher::End() {
  if (state_ != nullptr) ::eventfd_write(state_->stop.get(), 1);
  state_.reset();  // the thread has the last reference and closes the descriptors
}

NetworkWatcher::~NetworkWatcher() {
  End();
  if (!thread_.Joinable()) return;
  if (thread_.IsCurrent()) {
    thread_.Detach();
  } else {
    thread_.Join();
  }
}

}  // namespace zeb::util
