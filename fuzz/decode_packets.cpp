// Any bytes into the decoder: nothing is read beyond them, no more is used up than there is, and whatever the
// client answers is a packet.
#include "fuzz/harness.h"

using namespace zeb;
using Peer = mqtt::SelfMqttImplPeer;

// First byte, from its lowest bit: MQTT 5.0, a Ping waits, a start waits, a Subscribe waits, sends fail, user
// properties in the answers, one of them too long. The rest is received.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const unsigned mode = size != 0 ? data[0] : 0;
  const auto client = fuzz::NewClient((mode & 1) != 0, [mode](auto& message) {
    if (message.message_id == 0 || (mode & 80) != 0) return;  // QoS 0, or it cannot be answered
    fuzz::Require(!fuzz::wire.sent.empty(), "an answer before the message");
    const auto answer = fuzz::ParseClientPacket(fuzz::wire.sent.back(), (mode & 1) != 0);
    fuzz::Require(answer.identifier == message.message_id, "the answer to this message");
  });
  Peer::SetPingWait(*client, (mode & 2) != 0);
  const mqtt::AckQueue::Waiter start(Peer::Queue(*client), mqtt::MsgType((mode & 4) != 0 ? 2 : 15), 0);
  const mqtt::AckQueue::Waiter request(Peer::Queue(*client), mqtt::MsgType((mode & 8) != 0 ? 9 : 11), 0);
  fuzz::wire.broken = (mode & 16) != 0;
  std::list<mqtt::MqttWrapper::PairedString> pairs;
  if ((mode & 32) != 0) pairs = {{"key", "value"}, {"", "no key"}};
  if ((mode & 64) != 0) pairs.push_back({"long", std::string(65536, '*')});
  (void)client->SetPubAckUserProperties(pairs);
  (void)client->SetPubRecUserProperties(pairs);
  (void)client->SetPubCompUserProperties(pairs);

  const std::vector<uint8_t> bytes(data + (size != 0 ? 1 : 0), data + size);  // a block of exactly their size
  const int used = client->DecodePackets(bytes.data(), bytes.size());
  fuzz::Require(used >= 0 && static_cast<size_t>(used) <= bytes.size(), "no more used up than there is");
  for (const std::string& packet : fuzz::wire.sent) (void)fuzz::ParseClientPacket(packet, (mode & 1) != 0);
  return 0;
}
