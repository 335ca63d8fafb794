// The status command: connects and prints what the client knows about the broker. Main thread only.
#include "tools/commands.h"
#include "tools/output.h"

namespace zeb::tools {
namespace {

/// Lines with a name and a value. Values that the broker has not sent are left out.
class Report {
 public:
  void Add(const std::string& name, const std::string& value) {
    if (!value.empty()) text_ += name + ": " + value + '\n';
  }
  void Add(const std::string& name, int64_t value) { Add(name, value == 0 ? "" : std::to_string(value)); }
  [[nodiscard]] const std::string& text() const { return text_; }

 private:
  std::string text_;
};

const char* StatusName(int32_t status) {
  constexpr const char* names[] = {"idle", "socket connected", "session established", "disconnected"};
  return status >= 0 && static_cast<size_t>(status) < std::size(names) ? names[status] : "unknown";
}

void AddProperties(Report& report, const MqttWrapper::Properties& properties) {
  report.Add("assigned client identifier", properties.assigned_client_identifier);
  report.Add("session expiry interval", properties.session_expiry_interval);
  report.Add("server keep alive", properties.server_keep_alive);
  report.Add("receive maximum", properties.receive_maximum);
  report.Add("maximum packet size", properties.maximum_packet_size);
  report.Add("topic alias maximum", properties.topic_alias_maximum);
  report.Add("maximum qos", properties.maximum_qos);
  report.Add("retain available", properties.retain_available);
  report.Add("wildcard subscription available", properties.wildcard_subscription_available);
  report.Add("subscription identifier available", properties.subscription_identifier_available);
  report.Add("shared subscription available", properties.shared_subscription_available);
  report.Add("authentication method", properties.authentication_method);
  report.Add("response information", properties.response_information);
  report.Add("server reference", properties.server_reference);
  report.Add("reason", properties.reason_string);
  for (const auto& pair : properties.user_property) report.Add("user property " + pair.key, pair.val);
}

}  // namespace

int Status(const Options& options) {
  Ending ending;
  Connection connection(options, ending);
  const Watch watch(connection.client(), ending, false, std::nullopt);
  const auto print = [&] {
    Report report;
    report.Add("broker", connection.Name());
    report.Add("protocol", options.connect.protocol == 2 ? "MQTT 5.0" : "MQTT 3.1.1");
    report.Add("tls", options.connect.tls ? "yes" : "no");
    report.Add("status", StatusName(connection.client().GetStatusInfo().status));
    const MqttWrapper::ConnectAck& ack = connection.ack();
    if (ack.reason_code != MqttWrapper::k_no_reason_code) {
      report.Add("connack", connection.CodeText(ack.reason_code));
      report.Add("session present", ack.session_present ? "yes" : "no");
      AddProperties(report, ack.properties);
    }
    (void)WriteOutput(report.text(), ending);  // a failure begins the ending
  };
  try {
    connection.Open();
  } catch (const Failure& failure) {
    if (failure.code == kNoConnection) print();
    throw;
  }
  print();
  ending.Check();
  connection.Close();
  return kDone;
}

}  // namespace zeb::tools
