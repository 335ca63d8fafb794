// Wake locks through the kernel's files, if they exist and this process may write them. Otherwise the names
// are only remembered. Any thread.
#include "util/psm_manager.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <set>
#include <system_error>

#include "util/log.h"
#include "util/mutex.h"
#include "util/scoped_fd.h"

namespace zeb::psm {
namespace {

// One write is one command. Returns 0 or an errno.
int WriteName(int fd, const std::string& name) {
  return ::write(fd, name.data(), name.size()) >= 0 ? 0 : errno;
}

bool LogRefusal(const std::string& name, int error) {
  ZEB_LOG(LOG_ERR, "wake lock %s: %s", name.c_str(), std::generic_category().message(error).c_str());
  return false;
}

struct Locks {
  Locks();

  util::ScopedFd lock_file;    // /sys/power/wake_lock; invalid if the names are only remembered
  util::ScopedFd unlock_file;  // /sys/power/wake_unlock; like the one above, set once
  util::Mutex mutex;           // guards `names`, and orders the writes to the kernel
  std::set<std::string> names;
};

// A process without CAP_BLOCK_SUSPEND may still be able to open the files, so only a write tells. This write
// names no lock: the kernel checks the capability first and then refuses the name.
bool MayWrite(int fd) { return ::write(fd, "\n", 1) == 1 || errno == EINVAL; }

Locks::Locks()
    : lock_file(::open("/sys/power/wake_lock", O_WRONLY | O_CLOEXEC)),
      unlock_file(::open("/sys/power/wake_unlock", O_WRONLY | O_CLOEXEC)) {
  if (lock_file.valid() && unlock_file.valid() && MayWrite(unlock_file.get())) return;
  lock_file.Reset();
  unlock_file.Reset();
}

Locks& GetLocks() {
  static auto* const locks = new Locks;  // never freed: threads may hold locks during exit
  return *locks;
}

}  // namespace

PsmManager::Backend PsmManager::GetBackend() {
  return GetLocks().lock_file.valid() ? Backend::kKernel : Backend::kMemory;
}

bool PsmManager::WakeLock(const std::string& name) {
  Locks& locks = GetLocks();
  const util::MutexLock lock(locks.mutex);
  if (locks.names.count(name) != 0) return true;
  try {  // recorded before the kernel has it: a lock without a record would never be released
    locks.names.insert(name);
  } catch (const std::bad_alloc&) {
    ZEB_LOG(LOG_ERR, "wake lock %s: no memory", name.c_str());
    return false;
  }
  const int error = locks.lock_file.valid() ? WriteName(locks.lock_file.get(), name) : 0;
  if (error == 0) return true;
  locks.names.erase(name);
  return LogRefusal(name, error);
}

bool PsmManager::WakeUnlock(const std::string& name) {
  Locks& locks = GetLocks();
  const util::MutexLock lock(locks.mutex);
  if (locks.names.count(name) == 0) return true;
  const int error = locks.unlock_file.valid() ? WriteName(locks.unlock_file.get(), name) : 0;
  if (error != 0 && error != EINVAL) return LogRefusal(name, error);  // EINVAL: somebody else has released it
  locks.names.erase(name);
  return true;
}

size_t PsmManager::HeldLocks() {
  Locks& locks = GetLocks();
  const util::MutexLock lock(locks.mutex);
  return locks.names.size();
}

}  // namespace zeb::psm
