// Takes the place of setsockopt().
#include "tests/support/deny_device.h"

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

static std::atomic<bool> deny_device{false};

zeb::test::DenyDevice::DenyDevice(bool deny) { deny_device = deny; }
zeb::test::DenyDevice::~DenyDevice() { deny_device = false; }

extern "C" int setsockopt(int fd, int level, int name, const void* value, socklen_t length) noexcept {
  const bool denied = deny_device && level == SOL_SOCKET && name == SO_BINDTODEVICE;
  if (denied) errno = EPERM;
  return denied ? -1 : static_cast<int>(::syscall(SYS_setsockopt, fd, level, name, value, length));
}
