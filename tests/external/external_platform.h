// What the test may ask of the platform in external_platform.cpp, and have it do. Any thread.
#pragma once

#include <array>
#include <atomic>
#include <set>
#include <string>

namespace external {
/// The only host. Its broker takes packets of up to 127 bytes and closes on a topic that begins with '!'.
inline constexpr char k_name[] = "broker.test", k_address[] = "192.0.2.1", k_path[] = "192.0.2.1;1883";
inline constexpr int k_port = 1883;
inline std::set<std::string> held;                  ///< wake locks; the test looks when no client exists
inline std::atomic<int> locks{0}, releases{0};      ///< wake locks taken; unlocks that released one
inline std::atomic<int> callbacks{0}, sockets{0};   ///< registered now; objects that exist now
inline std::array<std::atomic<int>, 16> packets{};  ///< that brokers read, by type
/// Tells the callbacks, on this thread, that the host lost its addresses of version "4" or "6".
void LoseAddresses(const char* ip_version);
}  // namespace external
