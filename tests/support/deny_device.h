// A process without the right to bind a socket to a device.
#pragma once

namespace zeb::test {

/// Refuses it from construction to destruction, unless `deny` is false.
class DenyDevice {
 public:
  explicit DenyDevice(bool deny = true);
  ~DenyDevice();
  DenyDevice(const DenyDevice&) = delete;
};

}  // namespace zeb::test
