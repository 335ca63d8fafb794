// Wake locks of the device's power-save manager. Supplied by the platform.
#pragma once

#include <cstddef>
#include <string>

namespace zeb::psm {

/// While a lock of any name is held the device does not suspend. Any thread; locks do not nest.
class PsmManager {
 public:
  enum class Backend {
    kKernel,  ///< the system's own wake locks: what is locked here keeps the device awake
    kMemory,  ///< the names are only kept: whether the device suspends is decided elsewhere
  };
  /// What stands behind the locks of this process.
  static Backend GetBackend();

  /// Takes the lock; true when it is held afterwards.
  static bool WakeLock(const std::string& name);
  /// Releases the lock; true when it is not held afterwards, also when it was not held before.
  static bool WakeUnlock(const std::string& name);
  /// How many names this process has locked at this moment, whatever the backend.
  static size_t HeldLocks();
};

}  // namespace zeb::psm
