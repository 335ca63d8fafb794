// Formats a message as -F says. Any thread.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

#include "mqtt/mqtt_wrapper.h"

namespace zeb::tools {

/// Returns `format` with the message's values filled in. Throws std::invalid_argument, with a description, if
/// `format` is invalid, whatever the message.
std::string Render(std::string_view format, const mqtt::MqttWrapper::PublishMessage& message, timespec now);

}  // namespace zeb::tools
