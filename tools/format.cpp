// The letters are those that users of MQTT tools know. QoS and retain flag have none, because the library
// does not report them. Any thread.
#include "tools/format.h"

#include <cstdio>
#include <stdexcept>

namespace zeb::tools {
namespace {

constexpr std::string_view kLetters = "tplmxIU%";
constexpr std::string_view kEscapes = "ntr0\\";
constexpr std::string_view kEscaped("\n\t\r\0\\", 5);

std::string Hex(const std::string& bytes) {
  constexpr char digits[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * bytes.size());
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    text += digits[value >> 4U];
    text += digits[value & 0xFU];
  }
  return text;
}

std::string LocalTime(time_t seconds) {
  tm parts{};
  char text[40] = {};
  ::localtime_r(&seconds, &parts);
  (void)std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &parts);  // always fits
  return text;
}

std::string UnixTime(timespec now) {
  char text[40] = {};
  std::snprintf(text, sizeof text, "%lld.%06ld", static_cast<long long>(now.tv_sec), now.tv_nsec / 1'000);
  return text;
}

std::string Value(char letter, const mqtt::MqttWrapper::PublishMessage& message, timespec now) {
  switch (letter) {
    case 't':
      return message.topic;
    case 'p':
      return message.payload;
    case 'l':
      return std::to_string(message.payload.size());
    case 'm':
      return std::to_string(message.message_id);
    case 'x':
      return Hex(message.payload);
    case 'I':
      return LocalTime(now.tv_sec);
    case 'U':
      return UnixTime(now);
    default:
      return "%";
  }
}

}  // namespace

std::string Render(std::string_view format, const mqtt::MqttWrapper::PublishMessage& message, timespec now) {
  std::string line;
  for (size_t i = 0; i < format.size(); ++i) {
    const char mark = format[i];
    if (mark != '%' && mark != '\\') {
      line += mark;
      continue;
    }
    if (++i == format.size()) throw std::invalid_argument("ends with a single " + std::string(1, mark));
    const size_t escape = kEscapes.find(format[i]);
    if (mark == '\\' && escape != kEscapes.npos) {
      line += kEscaped[escape];
    } else if (mark == '%' && kLetters.find(format[i]) != kLetters.npos) {
      line += Value(format[i], message, now);
    } else {
      throw std::invalid_argument("has the unknown " + std::string(format.substr(i - 1, 2)) +
                                  R"(; the known ones are %t %p %l %m %x %I %U %% and \n \t \r \0 \\)");
    }
  }
  return line;
}

}  // namespace zeb::tools
