// A network event: a type and numbered text parameters.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace zeb::util {

/// Raised by the platform's NetworkManager. Not thread-safe.
class EventDic {
 public:
  /// The host has lost its last usable address of one IP version, which `k_ip_version` names.
  static constexpr int32_t k_address_lost = 260;
  /// Parameter: "4" or "6".
  static constexpr int32_t k_ip_version = 12;

  explicit EventDic(int32_t type) : type_(type) {}

  [[nodiscard]] int32_t type() const { return type_; }
  void SetParam(int32_t id, std::string value) { params_[id] = std::move(value); }
  /// The parameter's text; empty if the event has no such parameter.
  [[nodiscard]] std::string GetParam(int32_t id) const {
    const auto found = params_.find(id);
    return found == params_.end() ? std::string() : found->second;
  }

 private:
  int32_t type_;
  std::map<int32_t, std::string> params_;
};

}  // namespace zeb::util
