// Whole sessions on the platform of this folder, one after the other on the main thread, through the public
// interface. After each the platform's books must balance. The exit code is 0 when every check held.
#include <cstdio>
#include <filesystem>
#include <future>

#include "mqtt/mqtt_wrapper.h"
#include "tests/external/external_platform.h"
#include "util/event_dic.h"
#include "util/network_manager.h"
#include "util/psm_manager.h"

namespace {
using zeb::mqtt::MqttWrapper;
int failures = 0;
#define CHECK(holds) (void)((holds) || std::printf("%d: line %d: not %s\n", ++failures, __LINE__, #holds) < 0)
template <typename T>
T Await(std::future<T> event, int seconds = 10) {
  return event.wait_for(std::chrono::seconds(seconds)) == std::future_status::ready ? event.get() : T();
}
// The broker, for packets of up to 127 bytes.
void Answer(std::string_view in) {
  const auto type = static_cast<size_t>(in[0] >> 4 & 15);
  const size_t row = type == 3 ? 13U + (in[0] >> 1 & 3) : type;  // of PUBLISH one for each QoS
  const char answer = "\0\x20\0\0\0\0\x70\0\x90\0\xB0\0\xD0\0\x40\x50"[row];
  const std::string id(in.substr(type == 3 ? 4U + static_cast<size_t>(in[3]) : 2, 2));
  if (type == 1) return external::Deliver({answer, 2, 0, 0});
  if (type == 8) return external::Deliver(answer + ("\3" + id) + "\1\x32\7" + std::string("\0\1t\0\11hi", 7));
  if (type == 12) return external::Deliver({answer, 0});
  if (answer != 0) external::Deliver(answer + ("\2" + id));
}
// Ends by 0: a stop, 1: the broker's close, 2: the network's loss.
void RunSession(int ends_by) {
  std::promise<std::string> message;
  const auto end = std::make_shared<std::promise<int>>();  // may outlive the session
  MqttWrapper client;
  MqttWrapper::ConnectOption option;
  option.host = ends_by == 0 ? external::k_name : external::k_address;
  option.port = external::k_port;
  option.message_cb = [&](MqttWrapper::PublishMessage& inbound) { message.set_value(inbound.payload); };
  option.disconnect_cb = [end](MqttWrapper*, int reason) { end->set_value(reason); };
  CHECK(client.StartClient(option, nullptr) == zeb::kSuccess);
  MqttWrapper::SubscribeOption wanted{{{"t", 1}}, 0, {}};
  CHECK(client.Subscribe(wanted, nullptr) == zeb::kSuccess);
  CHECK(Await(message.get_future()) == "hi");
  MqttWrapper::PublishOption outbound{"t", false, 2, false, "any"};
  CHECK(client.Publish(outbound) == zeb::kSuccess);
  MqttWrapper::UnsubscribeOption unwanted{{"t"}, {}};
  CHECK(client.Ping(true) == 0 && client.Unsubscribe(unwanted, nullptr) == zeb::kSuccess);
  if (ends_by == 1) external::Deliver("", 0);
  zeb::util::EventDic event(zeb::util::EventDic::k_address_lost);
  event.SetParam(zeb::util::EventDic::k_ip_version, "4");
  if (ends_by == 2) zeb::util::NetworkManager::RaiseEvent(event);
  CHECK(Await(end->get_future(), ends_by == 0 ? 0 : 10) == ends_by);
  CHECK(client.StopClient(nullptr) == zeb::kSuccess);
  CHECK(external::wire.sent.size() == (ends_by == 0 ? 8 : 7));  // PUBACK and PUBREL among them
}
}  // namespace
int main() {
  external::wire.on_send = Answer;
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  const auto before = descriptors();
  for (const int ends_by : {0, 1, 2}) {
    const int locks = external::locks;
    RunSession(ends_by);
    external::wire.far_end.Reset();
    CHECK(external::locks > locks && zeb::psm::PsmManager::HeldLocks() == 0 && descriptors() == before);
  }
  return failures == 0 ? 0 : 1;
}
