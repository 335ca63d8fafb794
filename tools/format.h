// The text of -F, filled in for each message.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

#include "mqtt/mqtt_wrapper.h"

namespace zeb::tools {

/// Throws std::invalid_argument, which tells what is wrong with `format`; that does not depend on the
/// message.
std::string Render(std::string_view format, const mqtt::MqttWrapper::PublishMessage& message, timespec now);

}  // namespace zeb::tools
