// The building blocks of every packet: variable byte integer, fixed header, strings, packet length. They work
// in place, hold no state and may run on any thread.
#include <algorithm>

#include "mqtt/packet_reader.h"
#include "mqtt/packet_writer.h"
#include "mqtt/self_mqtt_impl.h"

namespace zeb::mqtt {
namespace {

constexpr unsigned int kMaxVbiBytes = 4;
constexpr size_t kMaxEncodedVbi = 5;  // a value past four bytes is written all the same
constexpr uint8_t kMoreBytesFollow = 0x80;

}  // namespace

int SelfMqttImpl::EncodeVbi(unsigned char* buf, unsigned int value) {
  PacketWriter writer(buf, kMaxEncodedVbi);
  writer.AppendVbi(value);
  return static_cast<int>(writer.size());
}

int SelfMqttImpl::EncodeFixedHeader(unsigned char* buf, unsigned int remaining_length, MsgType type,
                                    bool retain, unsigned char qos, bool duplicate) {
  buf[0] = static_cast<uint8_t>((static_cast<unsigned int>(type) << 4 & 0xF0U) | (duplicate ? 0x08U : 0U) |
                                (qos & 3U) << 1 | (retain ? 0x01U : 0U));
  return 1 + EncodeVbi(buf + 1, remaining_length);
}

int SelfMqttImpl::EncodeString(unsigned char* buf, const std::string& text) {
  PacketWriter writer(buf, text.size() + 2);
  writer.AppendString(text);
  return static_cast<int>(writer.size());
}

int SelfMqttImpl::DecodeVbi(const unsigned char* buf, unsigned int available, int& value) {
  value = 0;
  const unsigned int bytes = std::min(available, kMaxVbiBytes);
  for (unsigned int i = 0; i < bytes; ++i) {
    value |= (buf[i] & 0x7F) << (7 * i);
    if ((buf[i] & kMoreBytesFollow) == 0) return static_cast<int>(i + 1);
  }
  return static_cast<int>(bytes);
}

int SelfMqttImpl::DecodeString(const unsigned char* buf, size_t available, std::string& text) {
  PacketReader reader(buf, available);
  reader.ReadString(&text);
  return static_cast<int>(reader.offset());
}

int SelfMqttImpl::DecodePairedString(const unsigned char* buf, size_t available, PairedString& pair) {
  PacketReader reader(buf, available);
  PairedString read;
  if (!reader.ReadString(&read.key) || !reader.ReadString(&read.val)) return 0;
  pair = std::move(read);
  return static_cast<int>(reader.offset());
}

int SelfMqttImpl::GetPacketLength(const unsigned char* buf, unsigned int available) {
  if (available < 2) return 0;
  int remaining_length = 0;
  const int length_bytes = DecodeVbi(buf + 1, available - 1, remaining_length);
  const bool unfinished = (buf[length_bytes] & kMoreBytesFollow) != 0;
  if (unfinished && length_bytes < static_cast<int>(kMaxVbiBytes)) return 0;
  return 1 + length_bytes + (unfinished ? 1 : 0) + remaining_length;
}

}  // namespace zeb::mqtt
