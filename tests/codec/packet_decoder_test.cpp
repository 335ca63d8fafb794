// Inbound packets of every type in both protocol versions: what is reported, delivered, remembered and
// logged, and how many bytes are used up.
#include <syslog.h>

#include <algorithm>
#include <regex>
#include <string>

#include "mqtt/self_mqtt_impl.h"
#include "tests/codec/bytes.h"
#include "tests/support/log_capture.h"
#include "tests/support/peer.h"
#include "util/boot_clock.h"

namespace zeb::mqtt {
namespace {

using Peer = SelfMqttImplPeer;

// The first two as in ConnectOption::protocol; the last is for a row during whose packets a Ping() waits.
enum : int32_t { k_v3 = 1, k_v5 = 2, k_both = 3, k_both_pinging = 7 };

std::string Described(const Peer::QueuedEvent& event) {
  std::string text = MqttWrapper::GetMsgTypeInStr(event.type) + " " + std::to_string(event.message_id);
  const auto add = [&](const char* name, int first, const auto& ack) {
    if (first == 0 && ack.reason_code == MqttWrapper::k_no_reason_code) return;
    text += name + std::to_string(first) + "," + std::to_string(ack.reason_code) + "," +
            ack.properties.reason_string;
  };
  add(" session ", event.connect_ack.session_present ? 1 : 0, event.connect_ack);
  add(" sub ", event.subscription_ack.message_id, event.subscription_ack);
  add(" unsub ", event.unsubscription_ack.message_id, event.unsubscription_ack);
  return text + ";";
}

struct Receiver {
  explicit Receiver(int32_t protocol) {
    MqttWrapper::ConnectOption option;
    option.protocol = protocol;
    option.message_cb = [this](MqttWrapper::PublishMessage& message) {
      EXPECT_EQ(message.wrapper, &wrapper);
      std::replace(message.payload.begin(), message.payload.end(), '\0', '~');
      text += "got " + std::to_string(message.message_id) + " " + message.topic + "|" + message.payload + ";";
    };
    Peer::SetOption(client, option);
    Peer::KeepThread(client) = true;
  }
  ~Receiver() { Peer::KeepThread(client) = false; }

  // What comes of it, as text; the number of bytes used up comes first unless it is all of them.
  std::string Take(const Bytes& bytes) {
    text.clear();
    Peer::Queue(client).Clear();
    const test::LogCapture log;
    const auto type = static_cast<MsgType>(bytes.empty() ? 0 : bytes[0] >> 4);
    const AckQueue::Waiter waiter(Peer::Queue(client), type, 0);  // for the event to keep its properties
    const int used = client.DecodePackets(bytes.data(), bytes.size());
    std::string all = used == static_cast<int>(bytes.size()) ? "" : "used " + std::to_string(used) + ";";
    for (const auto& event : Peer::QueuedEvents(client)) all += Described(event);
    for (const auto& due : Peer::DueReleases(client)) text += "due " + std::to_string(due.message_id) + ";";
    const bool ended = !Peer::KeepThread(client);
    if (ended) text += "ended " + std::to_string(client.GetStatusInfo().reason_code) + ";";
    if (Peer::GetStamps(client).second != 0) text += "pong;";
    written.clear();
    for (const auto& line : log.Lines()) {
      written += std::to_string(line.priority) + " " + line.text;
      if (line.text.find("Target pointer is [") != std::string::npos) text += "position;";
      if (line.priority == LOG_ERR && !ended) text += "error;";
    }
    return all + text;
  }

  MqttWrapper wrapper;
  SelfMqttImpl client{&wrapper};
  std::string text;     // what the last Take was told besides events
  std::string written;  // its log lines, each behind its priority
};

const struct {
  int32_t versions;
  const char* bytes;
  const char* outcome;
} k_rows[] = {
    {k_v3, "20 02 01 00 20 02 FE 05", "CONNACK 0 session 1,0,;CONNACK 0 session 0,5,;"},
    {k_v3, "20 03 00 00 00", "CONNACK 0 session 0,0,;position;"},
    {k_v5, "20 09 01 87 06 1F 0003 'why'", "CONNACK 0 session 1,135,why;"},
    {k_v5, "20 04 00 00 00 09", "CONNACK 0 session 0,0,;position;"},
    {k_both, "20 01 01 40 01 07", "CONNACK 0;PUBACK 0;position;position;"},
    {k_both, "40 02 0102 50 02 0007 70 02 FFFF 62 02 0007",
     "PUBACK 258;PUBREC 7;PUBCOMP 65535;PUBREL 7;error;"},
    {k_v3, "40 03 0007 00 62 03 0007 00", "PUBACK 7;PUBREL 7;position;error;position;"},
    {k_v5, "40 0B 0007 00 07 26 0001 'k' 0001 'v' 50 03 0007 10", "PUBACK 7;PUBREC 7;"},
    {k_v5, "70 05 0007 00 05 1F", "PUBCOMP 7;position;"},
    {k_v3, "90 03 0005 01 B0 02 0005", "SUBACK 5 sub 5,1,;UNSUBACK 5 unsub 5,65535,;"},
    {k_v3, "90 04 0005 80 01", "SUBACK 5 sub 5,128,;position;"},
    {k_v3, "90 02 0005 B0 03 0005 11", "SUBACK 5 sub 5,65535,;UNSUBACK 5 unsub 5,65535,;position;position;"},
    {k_v5, "90 0A 0005 06 1F 0003 'why' 87", "SUBACK 5 sub 5,135,why;"},
    {k_v5, "B0 08 0005 04 1F 0001 'n' 11", "UNSUBACK 5 unsub 5,17,n;"},
    {k_v5, "90 04 0005 7F 02 B0 03 0005 00",
     "SUBACK 5 sub 5,65535,;UNSUBACK 5 unsub 5,65535,;position;position;"},
    {k_v3, "30 05 0001 'a' 00 'z' 32 07 0001 'a' 0102 'hi'", "PUBLISH 0;PUBLISH 0;got 0 a|~z;got 258 a|hi;"},
    {k_v3, "34 05 0001 'a' 0009 36 05 0001 'a' 0008", "PUBLISH 0;PUBLISH 0;got 9 a|;got 8 a|;due 9;"},
    {k_v5, "34 0D 0001 'a' 0007 05 02 0000003C 'hi'", "PUBLISH 0;got 7 a|hi;due 7;"},
    {k_v5, "30 06 0001 'a' 01 1F 'x' 30 03 0001 'a'", "PUBLISH 0;PUBLISH 0;got 0 a|x;got 0 a|;"},
    {k_v5, "30 05 0001 'a' 7F 'x'", "PUBLISH 0;got 0 a|;"},  // a block ends with its packet
    {k_both, "30 00", "PUBLISH 0;error;"},
    {k_both, "30 01 00", "used 2;PUBLISH 0;error;"},
    {k_both, "30 03 0005 'a'", "used 4;PUBLISH 0;error;"},
    {k_both, "32 03 0001 'a'", "PUBLISH 0;error;"},
    {k_both, "34 04 0001 'a' 09", "used 5;PUBLISH 0;error;"},
    {k_both, "30 80808080", "PUBLISH 0;error;"},  // the length ends with its fourth byte in any case
    {k_both, "10 02 01 02 82 02 01 02 A2 02 01 02", "CONNECT 0;SUBSCRIBE 0;UNSUBSCRIBE 0;"},
    {k_both, "C0 00 D0 00 F0 03 01 02 03", "PINGREQ 0;AUTH 0;pong;"},
    {k_v3, "E0 02 8E 00", "DISCONNECT 0;"},
    {k_v5, "E0 00 E0 01 00", ""},
    {k_v5, "E0 06 8E 04 1C 0001 's'", "ended 142;"},
    {k_v5, "E0 03 81 00 09", "ended 129;position;"},
    {k_v5, "E0 03 82 05 1F", "ended 130;position;"},
    {k_both_pinging, "D0 00", "PINGRESP 0;pong;"},
    {k_both, "0F 02 01 02", "used 0;error;"},
    {k_both, "40 02 0007 00 00 40 02 0007", "used 4;PUBACK 7;error;"},
    {k_both, "40 02 0007 30 05 00", "used 4;PUBACK 7;"},
    {k_both, "D0 04 40 02 0007", "PUBACK 7;pong;"},  // what follows PINGRESP is never its body
};

TEST(PacketDecoder, TreatsEveryTypeByItsRulesAndWaitsForTheRestOfAPart) {
  for (const auto& row : k_rows) {
    for (const int32_t protocol : {k_v3, k_v5}) {
      if ((row.versions & protocol) == 0) continue;
      SCOPED_TRACE(testing::Message() << "protocol " << protocol << ": " << row.bytes);
      Receiver receiver(protocol);
      Peer::SetPingWait(receiver.client, row.versions == k_both_pinging);
      const Bytes whole = Hex(row.bytes);
      const int first = SelfMqttImpl::GetPacketLength(whole.data(), static_cast<unsigned int>(whole.size()));
      for (size_t size = 1; size < std::min(whole.size(), static_cast<size_t>(first)); ++size) {
        EXPECT_EQ(receiver.Take(Front(whole, size)), "used 0;") << size;
      }
      EXPECT_EQ(receiver.Take(whole), row.outcome);
    }
  }
  Receiver receiver(k_v3);
  EXPECT_EQ(receiver.client.DecodePacket(nullptr, 2), -1);
  EXPECT_EQ(receiver.client.DecodePackets(Hex("D0 00").data(), SIZE_MAX), 0);  // negative when signed
}

TEST(PacketDecoder, KeepsAQos2MessageUntilItsPubrel) {
  Receiver receiver(k_v3);
  const int64_t begin_us = util::BootTimeUs();
  receiver.Take(Hex("34 05 0001 'a' 0007 34 05 0001 'a' 0009 34 05 0001 'a' 0008"));
  EXPECT_EQ(receiver.Take(Hex("34 05 0001 'a' 0009")), "PUBLISH 0;got 9 a|;due 7;due 9;due 8;due 9;");
  EXPECT_GE(Peer::DueReleases(receiver.client).front().recv_time, begin_us);
  EXPECT_EQ(receiver.Take(Hex("62 02 0009")), "due 7;due 8;due 9;");  // the oldest of the two went
  EXPECT_EQ(receiver.Take(Hex("62 02 0009 62 02 0009")), "PUBREL 9;due 7;due 8;error;");
}

TEST(PacketDecoder, LogsUnderTheEntryOperationsNameAndTheTagOfItsClientWhatIsNotMasked) {
  Receiver receiver(k_v5);
  const std::regex name(R"(int zeb::mqtt::SelfMqttImpl::DecodePacket\(uint8_t\*, size_t\) \d+: )");
  const auto written = [&](const char* hex) {
    receiver.Take(Hex(hex));
    return std::regex_replace(receiver.written, name, "");
  };
  EXPECT_EQ(written("C0 00"), "7 PINGREQ remain_len 0 qos 0\n");
  Peer::SetTag(receiver.client, "t");
  EXPECT_EQ(written("50 03 0007 10"), "7 [t] PUBREC remain_len 3 qos 0\n7 msg_type [5] reason_code [10]\n");
  EXPECT_EQ(written("30 01 00"), "7 [t] PUBLISH remain_len 1 qos 0\n3 [t] ");
  const int before = ::setlogmask(LOG_UPTO(LOG_ERR));
  EXPECT_EQ(written("00 00"), "3 [t] Serious parsing error\n");
  ::setlogmask(before);
}

}  // namespace
}  // namespace zeb::mqtt
