// The watcher's thread: sleeps until the kernel reports a change of a link or an address, then looks at what
// addresses are left. The reports themselves are not read: after a burst, or one that overflowed, only the
// outcome counts.
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

// -1, with errno, when there is none to be had.
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

// Takes all reports there are. False when none will ever come again.
bool TakeReports(int fd) {
  constexpr int k_enough = 1'000;  // what still waits wakes the thread again
  char report[8];                  // the kernel drops the rest
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

/// Shared with the thread, which may outlive the object when a callback ended the watch.
struct NetworkWatcher::State {
  ScopedFd reports;
  ScopedFd stop;          // readable when the thread is to end
  UsableVersions usable;  // the thread alone, once it runs

  void Run();
  void Look();
};

void NetworkWatcher::State::Run() {
  for (;;) {
    pollfd watched[] = {{reports.get(), POLLIN, 0}, {stop.get(), POLLIN, 0}};
    if (::poll(watched, 2, -1) < 0) continue;  // a signal: the only failure that is possible here
    if (watched[1].revents != 0) return;
    const bool goes_on = TakeReports(reports.get());
    try {
      Look();
    } catch (const std::exception& error) {
      ZEB_LOG(LOG_ERR, "a network event was lost: %s", error.what());
    }
    if (goes_on) continue;
    ZEB_LOG(LOG_ERR, "the network is not watched any more");
    return;
  }
}

void NetworkWatcher::State::Look() {
  const UsableVersions before = usable;
  if (!LookUpUsableVersions(&usable)) return;
  if (before.ipv4 && !usable.ipv4) RaiseLoss("4");
  if (before.ipv6 && !usable.ipv6) RaiseLoss("6");
}

std::unique_ptr<NetworkWatcher> NetworkWatcher::Start() {
  const auto state = std::make_shared<State>();
  state->reports = OpenRoutingSocket();  // before the first look, so that no change falls between the two
  if (state->reports.valid()) state->stop = ScopedFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  const int error = errno;
  if (!state->stop.valid()) {
    ZEB_LOG(LOG_WARNING, "the network is not watched: %s", std::generic_category().message(error).c_str());
    return nullptr;
  }
  (void)LookUpUsableVersions(&state->usable);  // else the first report tells what there is
  std::unique_ptr<NetworkWatcher> watcher(new NetworkWatcher(state));
  if (watcher->thread_.Start([state] { state->Run(); }) != kSuccess) return nullptr;
  return watcher;
}

NetworkWatcher::~NetworkWatcher() {
  if (!thread_.Joinable()) return;
  ::eventfd_write(state_->stop.get(), 1);
  if (thread_.IsCurrent()) {
    thread_.Detach();
  } else {
    thread_.Join();
  }
}

}  // namespace zeb::util
