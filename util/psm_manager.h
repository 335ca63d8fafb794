// Wake locks of the device's power-save manager. Supplied by the platform.
#pragma once

#include <cstddef>
#include <string>

namespace zeb::psm {

/// While a lock is held, the device does not suspend (but see Backend). Locks do not nest. Any thread.
class PsmManager {
 public:
  enum class Backend {
    kKernel,  ///< the kernel's wake locks, which keep the device awake
    kMemory,  ///< the names are only remembered; suspend is controlled elsewhere
  };
  /// Where this process keeps its locks.
  static Backend GetBackend();

  /// Takes the lock. Returns whether it is held afterwards.
  static bool WakeLock(const std::string& name);
  /// Releases the lock. Returns true if it is not held afterwards, even if it was not held before.
  static bool WakeUnlock(const std::string& name);
  /// The number of locks that this process holds now, with either backend.
  static size_t HeldLocks();
};

}  // namespace zeb::psm
