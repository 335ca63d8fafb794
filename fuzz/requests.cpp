// Requests from any option records: what is sent is well formed and says what the options say, in their
// order; or nothing is sent, which takes a reason.
#include <syslog.h>

#include "fuzz/harness.h"

using namespace zeb;
using mqtt::MqttWrapper;
using Peer = mqtt::SelfMqttImplPeer;
using Texts = std::vector<std::string>;

namespace {

struct Session : fuzz::Input {
  // Each packet that is sent must have these texts in this order (empty ones need not be there) and the
  // identifier.
  void Verify(Result result, unsigned first_byte, const Texts& wanted) {
    const bool refused = fuzz::wire.sent.empty();
    fuzz::Require(refused == (result != kSuccess), "success if sent, as each request is answered");
    fuzz::Require(!refused || refusable || longest > 65535 || total > 60000, "refused for a reason");
    fuzz::Require(refused || fuzz::wire.sent.size() == ((first_byte & 0xF6) == 0x34 ? 2 : 1),
                  "so many packets");
    for (const std::string& sent : fuzz::wire.sent) {
      const bool release = &sent != &fuzz::wire.sent.front();  // PUBREL
      const auto packet = fuzz::ParseClientPacket(sent, mqtt5);
      fuzz::Require(packet.first_byte == (release ? 0x62 : first_byte), "its type and flags");
      fuzz::Require(packet.identifier == id, "its identifier");
      auto text = packet.texts.begin();
      for (const std::string& want : release ? Texts() : wanted) {
        if (want.empty()) continue;
        std::string cut = want;  // what is not binary ends at its first NUL
        std::fill(std::find(cut.begin(), cut.end(), '\0'), cut.end(), '\0');
        text =
            std::find_if(text, packet.texts.end(), [&](auto& each) { return each == want || each == cut; });
        fuzz::Require(text++ != packet.texts.end(), "what the options say");
      }
    }
  }
  // Up to 31 bytes as they stand, or a run of one byte, up to 131,070 long.
  std::string Text() {
    const uint8_t form = Byte();
    const auto run = static_cast<size_t>(form < 0xE0 ? 0 : Number(2) * (1 + (form & 1)));
    std::string text = form < 0xE0 ? Bytes(form & 31U) : std::string(run, static_cast<char>(Byte()));
    longest = std::max(longest, text.size());
    total += text.size();
    return text;
  }
  std::list<MqttWrapper::PairedString> Pairs() {
    std::list<MqttWrapper::PairedString> pairs(Byte() & 3U);
    for (auto& pair : pairs) pair = {Text(), Text()};
    return pairs;
  }
  int64_t Optional(int size) { return Flag() ? Number(size) : -1; }
  void TakeId() { id = last_id = last_id < 65535 ? last_id + 1 : 1; }

  void Connect() {
    MqttWrapper::ConnectOption option;
    option.protocol = Byte() % 4;
    option.client_id = Text();
    option.user_name = Text();
    option.password = Text();
    option.keep_alive = static_cast<int32_t>(Number(3));
    option.clean_session = Flag();
    option.session_expiry_interval = Optional(5);
    option.request_problem_information = static_cast<int8_t>(Byte());
    option.request_response_information = static_cast<int8_t>(Byte());
    option.receive_maximum = static_cast<int32_t>(Optional(3));
    option.topic_alias_maximum = static_cast<int32_t>(Optional(3));
    option.user_property = Pairs();
    MqttWrapper::LastWill& will = option.lwt;
    will = {Flag(), {Text(), Flag(), Byte(), Flag(), Text()}, {}};
    will.properties = {static_cast<int8_t>(Byte()), Optional(5), Text(), Text(), {}, Optional(5), Pairs()};
    refusable = option.protocol % 3 == 0;
    mqtt5 = option.protocol == 2;
    Texts wanted{option.client_id, option.user_name, option.password};
    if (will.enable) wanted.insert(wanted.begin() + 1, {will.msg.topic, will.msg.payload});
    Peer::SetConnected(*client, option, Peer::Current(*client)->Socket());  // CONNECT begins a new session
    Peer::SetMessageId(*client, static_cast<int32_t>(last_id));
    Verify(client->Connect(option, nullptr), 0x10, wanted);
  }
  void Publish() {
    MqttWrapper::PublishOption option{Text(), Flag(), Byte(), Flag(), Text()};
    refusable = option.topic.empty();
    const unsigned qos = std::min<unsigned>(option.qos, 2);
    if (qos != 0 && !refusable) TakeId();
    const Result result = client->Publish(option);
    const unsigned flags = qos << 1 | (option.retain ? 1U : 0U) | (option.duplicated ? 8U : 0U);
    Verify(result, 0x30 | flags, {option.topic, option.payload});
  }
  void Subscribe() {
    TakeId();
    MqttWrapper::SubscribeOption option{{}, static_cast<int32_t>(Number(4)), Pairs()};
    for (int left = Byte() & 3; left > 0; --left) option.topics.emplace(Text(), Byte());
    Texts wanted;
    for (const auto& topic : option.topics) wanted.push_back(topic.first);
    refusable = option.topics.count("") != 0 || (mqtt5 && option.subscription_identifier > 268435455);
    Verify(client->Subscribe(option, nullptr), 0x82, wanted);
  }
  void Unsubscribe() {
    TakeId();
    MqttWrapper::UnsubscribeOption option{{}, Pairs()};
    for (int left = Byte() & 3; left > 0; --left) option.topics.push_back(Text());
    Verify(client->Unsubscribe(option, nullptr), 0xA2, {option.topics.begin(), option.topics.end()});
  }
  void PublishResponse() {
    const unsigned type = 3 + Byte() % 6U;
    id = Number(2);
    auto pairs = Pairs();
    refusable = type < 4 || type > 7;
    const Result result =
        client->PublishResponse(mqtt::MsgType(type), static_cast<uint16_t>(id), Byte(), pairs);
    Verify(result, type << 4 | (type == 6 ? 2U : 0U), {});
  }
  void Disconnect() {
    MqttWrapper::DisconnectOption option{static_cast<int32_t>(Number(2)), Optional(5), Text(), Text(),
                                         Pairs()};
    const Texts wanted{option.server_reference, option.reason_string};
    Verify(client->Disconnect(&option), 0xE0, mqtt5 ? wanted : Texts());
    at = bytes.size();  // nothing goes out behind it
  }
  // Within the send: the acknowledgement, of the next type or, for QoS 2, the one after it.
  void Answer(uint8_t first_byte) {
    const int type = (first_byte & 0xF0) + ((first_byte & 0xF6) == 0x34 ? 0x20 : 0x10);
    const char answer[] = {static_cast<char>(type), 4, static_cast<char>(id >> 8),
                           static_cast<char>(id),   0, 0};
    (void)client->DecodePackets(reinterpret_cast<const uint8_t*>(answer), sizeof answer);
  }
  // Up to four requests over one buffer.
  void Run() {
    Peer::SetMessageId(*client, static_cast<int32_t>(last_id = Number(2)));
    fuzz::wire.on_send = [this](std::string_view packet) { Answer(static_cast<uint8_t>(packet[0])); };
    for (int left = 4; left > 0 && at < bytes.size(); --left) {
      fuzz::wire.sent.clear();
      refusable = false;
      id = 0;
      const uint8_t first = Byte(), kind = first % 7;
      ::setlogmask(LOG_UPTO(first < 192 ? LOG_ERR : LOG_DEBUG));  // lines in debug take most of the time
      if (kind == 0) Connect();
      if (kind == 1) Publish();
      if (kind == 2) Subscribe();
      if (kind == 3) Unsubscribe();
      if (kind == 4) Disconnect();
      if (kind == 5) PublishResponse();
      if (kind == 6) Verify(client->Ping(Flag()), 0xC0, {});
    }
  }

  bool mqtt5 = Flag(), refusable = false;
  std::unique_ptr<mqtt::SelfMqttImpl> client = fuzz::NewClient(mqtt5);
  int64_t last_id = 0, id = 0;    // given out last, and of this request
  size_t longest = 0, total = 0;  // of the texts
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Session{{data, size}}.Run();
  return 0;
}
