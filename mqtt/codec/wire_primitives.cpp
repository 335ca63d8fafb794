// The building blocks of every packet: variable byte integer, fixed header, strings, packet length.
#include <algorithm>

#include "mqtt/codec/codec.h"
#include "mqtt/codec/packet_reader.h"

namespace zeb::mqtt {
namespace {

constexpr size_t kMaxEncodedVbi = 5;  // a value past four bytes is written all the same

// Requests and their acknowledgements.
constexpr struct {
  MsgType request;
  int qos;  // of a PUBLISH; otherwise -1
  MsgType ack;
} kAcks[] = {{MsgType::PUBLISH, 1, MsgType::PUBACK},    {MsgType::PUBLISH, 2, MsgType::PUBREC},
             {MsgType::PUBREL, -1, MsgType::PUBCOMP},   {MsgType::SUBSCRIBE, -1, MsgType::SUBACK},
             {MsgType::PINGREQ, -1, MsgType::PINGRESP}, {MsgType::UNSUBSCRIBE, -1, MsgType::UNSUBACK},
             {MsgType::CONNECT, -1, MsgType::CONNACK}};

}  // namespace

int Codec::EncodeVbi(unsigned char* buf, unsigned int value) {
  PacketWriter writer(buf, kMaxEncodedVbi);
  writer.AppendVbi(value);
  return static_cast<int>(writer.size());
}

int Codec::EncodeFixedHeader(unsigned char* buf, unsigned int remaining_length, MsgType type, bool retain,
                             unsigned char qos, bool duplicate) {
  buf[0] = static_cast<uint8_t>((static_cast<unsigned int>(type) << 4 & 0xF0U) | (duplicate ? 0x08U : 0U) |
                                (qos & 3U) << 1 | (retain ? 0x01U : 0U));
  return 1 + EncodeVbi(buf + 1, remaining_length);
}

int Codec::EncodeString(unsigned char* buf, const std::string& text) {
  PacketWriter writer(buf, text.size() + 2);
  writer.AppendString(text);
  return static_cast<int>(writer.size());
}

int Codec::DecodeVbi(const unsigned char* buf, unsigned int available, int& value) {
  value = 0;
  const unsigned int bytes = std::min(available, k_max_vbi_bytes);
  for (unsigned int i = 0; i < bytes; ++i) {
    value |= (buf[i] & 0x7F) << (7 * i);
    if ((buf[i] & k_more_bytes_follow) == 0) return static_cast<int>(i + 1);
  }
  return static_cast<int>(bytes);
}

int Codec::DecodeString(const unsigned char* buf, size_t available, std::string& text) {
  PacketReader reader(buf, available);
  reader.ReadString(&text);
  return static_cast<int>(reader.offset());
}

int Codec::DecodePairedString(const unsigned char* buf, size_t available, PairedString& pair) {
  PacketReader reader(buf, available);
  PairedString read;
  if (!reader.ReadString(&read.key) || !reader.ReadString(&read.val)) return 0;
  pair = std::move(read);
  return static_cast<int>(reader.offset());
}

MsgType Codec::AckOf(MsgType request, uint8_t qos) {
  for (const auto& each : kAcks)
    if (each.request == request && (each.qos < 0 || each.qos == qos)) return each.ack;
  return MsgType::RESERVED;
}

bool Codec::IsAck(MsgType type) {
  for (const auto& each : kAcks)
    if (each.ack == type) return true;
  return false;
}

// A length that does not even end with its fourth byte counts as five bytes long.
int Codec::GetPacketLength(const unsigned char* buf, unsigned int available) {
  if (available < 2) return 0;
  const FixedHeader header = DecodeFixedHeader(buf, available);
  if (!header.whole) return 0;
  const bool endless = (buf[header.size - 1] & k_more_bytes_follow) != 0;
  return static_cast<int>(header.size) + (endless ? 1 : 0) + header.remaining_length;
}

}  // namespace zeb::mqtt
