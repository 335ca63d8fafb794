// Wake locks of a system without a power-save manager: they are only counted. Any thread.
#include "util/psm_manager.h"

#include <set>

#include "util/mutex.h"

namespace zeb::psm {
namespace {

struct Locks {
  util::Mutex mutex;  // guards the names
  std::set<std::string> names;
};

Locks& GetLocks() {
  static auto* const locks = new Locks;  // never freed: threads may hold locks during exit
  return *locks;
}

}  // namespace

bool PsmManager::WakeLock(const std::string& name) {
  Locks& locks = GetLocks();
  util::MutexLock lock(locks.mutex);
  locks.names.insert(name);
  return true;
}

bool PsmManager::WakeUnlock(const std::string& name) {
  Locks& locks = GetLocks();
  util::MutexLock lock(locks.mutex);
  locks.names.erase(name);
  return true;
}

size_t PsmManager::HeldLocks() {
  Locks& locks = GetLocks();
  util::MutexLock lock(locks.mutex);
  return locks.names.size();
}

}  // namespace zeb::psm
