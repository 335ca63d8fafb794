// Wake locks of the device's power-save manager. Supplied by the platform.
#pragma once

#include <string>

namespace zeb::psm {

/// While a lock of any name is held the device does not suspend. Any thread; locks do not nest.
class PsmManager {
 public:
  /// Takes the lock; true when it is held afterwards.
  static bool WakeLock(const std::string& name);
  /// Releases the lock; true when it is not held afterwards.
  static bool WakeUnlock(const std::string& name);
  /// How many names are locked at this moment.
  static size_t HeldLocks();
};

}  // namespace zeb::psm
