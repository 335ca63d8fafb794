// Inbound packets of every type in both protocol versions: what is reported, delivered, remembered and
// logged, and how many bytes are used up. What does not fit a packet.
#include <regex>

#include "tests/session/session.h"

namespace zeb::mqtt {
namespace {

using test::Peer;

enum : int32_t { k_v3 = 1, k_v5 = 2, k_both = 3, k_both_pinging = 7 };  // the last: while a Ping() waits

// Every field that is not at its default, behind a letter of its own.
std::string Described(const MqttWrapper::Properties& p) {
  std::string described;
  char name = 'a';
  const auto add = [&](auto... numbers) {
    ((described += numbers != 0 ? name + std::to_string(numbers) + ' ' : "", ++name), ...);
  };
  add(p.session_expiry_interval, p.maximum_packet_size, p.server_keep_alive, p.receive_maximum);
  add(p.topic_alias_maximum, p.topic_alias, p.maximum_qos, p.retain_available);
  add(p.wildcard_subscription_available, p.subscription_identifier_available);
  add(p.shared_subscription_available);
  name = 'A';
  for (const auto* text : {&p.assigned_client_identifier, &p.authentication_method, &p.response_information,
                           &p.server_reference, &p.reason_string}) {
    if (!text->empty()) described += name + *text + ' ';
    ++name;
  }
  for (const auto& pair : p.user_property) described += pair.key + ':' + pair.val + ' ';
  return described;
}

std::string Described(const Peer::QueuedEvent& event) {
  std::string text = MqttWrapper::GetMsgTypeInStr(event.type) + " " + std::to_string(event.message_id);
  const auto add = [&](const char* name, int first, const auto& ack) {
    if (first == 0 && ack.reason_code == MqttWrapper::k_no_reason_code) return;
    text += name + std::to_string(first) + "," + std::to_string(ack.reason_code) + "," +
            Described(ack.properties);
  };
  add(" session ", event.connect_ack.session_present ? 1 : 0, event.connect_ack);
  add(" sub ", event.subscription_ack.message_id, event.subscription_ack);
  add(" unsub ", event.unsubscription_ack.message_id, event.unsubscription_ack);
  return text + ";";
}

struct Receiver {
  explicit Receiver(int32_t protocol) {
    const auto note = [this](MqttWrapper::PublishMessage& message) {
      EXPECT_EQ(message.wrapper, &wrapper);
      std::replace(message.payload.begin(), message.payload.end(), '\0', '~');
      text += "got " + std::to_string(message.message_id) + " " + message.topic + "|" + message.payload + ";";
    };
    Peer::SetConnected(client, protocol, note, nullptr);
  }
  ~Receiver() { Peer::KeepThread(client) = false; }

  // What comes of it, as text; the number of bytes used up comes first unless it is all of them.
  std::string Take(const std::string& packets) {
    // In a block of exactly their size, so that a sanitizer sees a byte too far.
    const std::vector<uint8_t> bytes(packets.begin(), packets.end());
    text.clear();
    Peer::Queue(client).Clear();
    const test::LogCapture log;
    const auto type = static_cast<MsgType>(bytes[0] >> 4);
    const AckQueue::Waiter waiter(Peer::Queue(client), type, 0);  // for the event to keep its properties
    const int used = client.DecodePackets(bytes.data(), bytes.size());
    std::string all = used == static_cast<int>(bytes.size()) ? "" : "used " + std::to_string(used) + ";";
    for (const auto& event : Peer::QueuedEvents(client)) all += Described(event);
    for (const auto& due : Peer::DueReleases(client))
      text += (due.recv_time > 0 ? "due " : "untimed ") + std::to_string(due.message_id) + ";";
    const bool ended = !Peer::KeepThread(client);
    if (ended) text += "ended " + std::to_string(client.GetStatusInfo().reason_code) + ";";
    if (Peer::GetStamps(client).second != 0) text += "pong;";
    written.clear();
    for (const auto& line : log.Lines()) {
      written += std::to_string(line.priority) + " " + line.text;
      if (line.text.find("Target pointer is [") != std::string::npos) text += "position;";
      if (line.text.find("Invalid property parsing for [2]\n") != std::string::npos) text += "invalid;";
      if (line.priority == LOG_ERR && !ended) text += "error;";
    }
    return all + text;
  }

  MqttWrapper wrapper;
  SelfMqttImpl client{&wrapper};
  std::string text, written;  // what the last Take was told besides events; its log lines, with priorities
};

const struct {
  int32_t versions;
  const char* bytes;
  const char* outcome;
} k_rows[] = {
    {k_v3, "20 02 01 00 20 02 FE 05", "CONNACK 0 session 1,0,;CONNACK 0 session 0,5,;"},
    {k_v3, "20 03 00 00 00", "CONNACK 0 session 0,0,;position;"},
    {k_v5, "20 09 01 87 06 1F 0003 'why'", "CONNACK 0 session 1,135,Ewhy ;"},
    {k_v5, "20 0E 00 00 0B 26 0000 0001 '2' 26 0000 0000", "CONNACK 0 session 0,0,:2 : ;"},
    {k_v5, "20 06 00 00 03 0B 24 02", "CONNACK 0 session 0,0,g2 ;"},  // what has no use has no value
    {k_v5, "20 09 00 00 06 25 01 1F FFFF 24", "CONNACK 0 session 0,0,h1 ;invalid;"},  // before the fault
    {k_v5, "20 05 00 00 7F 25 01", "CONNACK 0 session 0,0,h1 ;invalid;position;"},
    {k_v5, "20 04 00 00 81 80", "CONNACK 0 session 0,0,;invalid;position;"},  // a size that does not end
    {k_v5, "20 2B 00 00 28 2401240124012401240124012401240124012401240124012401240124012401240124012401240F",
     "CONNACK 0 session 0,0,g15 ;"},
    {k_v5,
     "20 2D 00 00 2A 24012401240124012401240124012401240124012401240124012401240124012401240124012401240F",
     "CONNACK 0 session 0,0,g1 ;invalid;"},
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
    {k_v5, "90 0A 0005 06 1F 0003 'why' 87", "SUBACK 5 sub 5,135,Ewhy ;"},
    {k_v5, "B0 08 0005 04 1F 0001 'n' 11", "UNSUBACK 5 unsub 5,17,En ;"},
    {k_v5, "90 04 0005 7F 02 B0 03 0005 00",
     "SUBACK 5 sub 5,65535,;UNSUBACK 5 unsub 5,65535,;position;position;"},
    {k_v3, "30 05 0001 'a' 00 'z' 32 07 0001 'a' 0102 'hi'", "PUBLISH 0;PUBLISH 0;got 0 a|~z;got 258 a|hi;"},
    {k_v3, "34 05 0001 'a' 0009 36 05 0001 'a' 0008", "PUBLISH 0;PUBLISH 0;got 9 a|;got 8 a|;due 9;"},
    {k_v3,
     "34 05 0001 'a' 0007 34 05 0001 'a' 0009 34 05 0001 'a' 0009 62 02 0009",  // the oldest of two goes
     "PUBLISH 0;PUBLISH 0;PUBLISH 0;got 7 a|;got 9 a|;got 9 a|;due 7;due 9;"},
    {k_v3, "34 05 0001 'a' 0009 62 02 0009 62 02 0009", "PUBLISH 0;PUBREL 9;got 9 a|;error;"},
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
      const std::string whole = test::Bytes(row.bytes);
      const int first = SelfMqttImpl::GetPacketLength(reinterpret_cast<const uint8_t*>(whole.data()),
                                                      static_cast<unsigned int>(whole.size()));
      for (size_t size = 1; size < std::min(whole.size(), static_cast<size_t>(first)); ++size)
        EXPECT_EQ(receiver.Take(whole.substr(0, size)), "used 0;") << size;
      EXPECT_EQ(receiver.Take(whole), row.outcome);
    }
  }
  Receiver receiver(k_v3);
  EXPECT_EQ(receiver.client.DecodePacket(nullptr, 2), -1);
  EXPECT_EQ(receiver.client.DecodePackets(nullptr, SIZE_MAX), 0);  // negative when signed
}

TEST(PacketDecoder, KeepsEveryKnownPropertyWholeAndNoneThatIsCutShort) {
  const std::pair<const char*, std::string> properties[] = {{"11 FEDCBA98", "a4275878552 "},
                                                            {"27 00020000", "b131072 "},
                                                            {"13 FFFE", "c65534 "},
                                                            {"21 0102", "d258 "},
                                                            {"22 0103", "e259 "},
                                                            {"23 0104", "f260 "},
                                                            {"24 FF", "g255 "},
                                                            {"25 01", "h1 "},
                                                            {"28 01", "i1 "},
                                                            {"29 01", "j1 "},
                                                            {"2A 01", "k1 "},
                                                            {"12 0002 'id'", "Aid "},
                                                            {"15 0001 'm'", "Bm "},
                                                            {"1A 0001 'r'", "Cr "},
                                                            {"1C 0001 's'", "Ds "},
                                                            {"1F 0003 'why'", "Ewhy "},
                                                            {"26 0001 'k' 0002 'vw'", "k:vw "}};
  Receiver receiver(k_v5);
  std::string block, before;
  for (const auto& [property, field] : properties) {
    const std::string whole = block + test::Bytes(property);
    for (size_t size = block.size() + 1; size <= whole.size(); ++size) {
      const auto length = static_cast<char>(size);
      const bool complete = size == whole.size();
      const std::string body = std::string(2, '\0') + length + whole.substr(0, size);
      EXPECT_EQ(receiver.Take('\x20' + std::string(1, static_cast<char>(size + 3)) + body),
                "CONNACK 0 session 0,0," + before + (complete ? field + ";" : ";invalid;"));
    }
    block = whole;
    before += field;
  }
}

TEST(PacketDecoder, LogsUnderTheEntryOperationsNameAndTheTagOfItsClientWhatIsNotMasked) {
  Receiver receiver(k_v5);
  const std::regex name(R"(int zeb::mqtt::SelfMqttImpl::DecodePacket\(uint8_t\*, size_t\) \d+: )");
  const auto written = [&](const char* hex) {
    receiver.Take(test::Bytes(hex));
    return std::regex_replace(receiver.written, name, "");
  };
  EXPECT_EQ(written("C0 00"), "7 PINGREQ remain_len 0 qos 0\n");
  Peer::SetTag(receiver.client, "t");
  EXPECT_EQ(written("50 03 0007 10"), "7 [t] PUBREC remain_len 3 qos 0\n7 msg_type [5] reason_code [10]\n");
  EXPECT_EQ(written("30 01 00"), "7 [t] PUBLISH remain_len 1 qos 0\n3 [t] ");
  const test::LogMask errors(LOG_ERR);
  EXPECT_EQ(written("00 00"), "3 [t] Serious parsing error\n");
}

TEST(PacketWriter, CountsOnPastTheEndAndWritesNothingThere) {
  std::vector<uint8_t> buffer(4, 0xEE);
  PacketWriter writer(buffer.data(), buffer.size());
  writer.AppendUint16(0x0102);
  writer.AppendUint32(0x03040506);
  writer.AppendString("text");
  EXPECT_EQ(writer.size(), 2U + 4 + 6);
  EXPECT_EQ(buffer, (std::vector<uint8_t>{1, 2, 3, 4}));
  EXPECT_EQ(writer.Reserve(SIZE_MAX), nullptr);
  EXPECT_EQ(writer.size(), SIZE_MAX);  // and does not wrap into the buffer again
}

}  // namespace
}  // namespace zeb::mqtt
