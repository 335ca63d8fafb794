// The building blocks of every packet: variable byte integer, fixed header, strings, packet length.
#include <algorithm>

#include "mqtt/codec/codec.h"
#include "mqtt/codec/packet_reader.h"

namespace zeb::mqtt {
namespace {

constexpr unsigned int kMaxVbiBytes = 4;
constexpr size_t kMaxEncodedVbi = 5;  // a value past four bytes is written all the same
constexpr uint8_t kMoreBytesFollow = 0x80;

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
  const unsigned int bytes = std::min(available, kMaxVbiBytes);
  for (unsigned int i = 0; i < bytes; ++i) {
    value |= (buf[i] & 0x7F) << (7 * i);
    if ((buf[i] & kMoreBytesFollow) == 0) return static_cast<int>(i + 1);
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

Codec::FixedHeader Codec::DecodeFixedHeader(const uint8_t* buf, size_t available) {
  FixedHeader header;
  const int length_bytes =
      DecodeVbi(buf + 1, static_cast<unsigned int>(available - 1), header.remaining_length);
  header.size = 1 + static_cast<size_t>(length_bytes);
  header.whole =
      (buf[length_bytes] & kMoreBytesFollow) == 0 || length_bytes == static_cast<int>(kMaxVbiBytes);
  return header;
}

// A length that does not even end with its fourth byte counts as five bytes long.
int Codec::GetPacketLength(const unsigned char* buf, unsigned int available) {
  if (available < 2) return 0;
  const FixedHeader header = DecodeFixedHeader(buf, available);
  if (!header.whole) return 0;
  const bool endless = (buf[header.size - 1] & kMoreBytesFollow) != 0;
  return static_cast<int>(header.size) + (endless ? 1 : 0) + header.remaining_length;
}

}  // namespace zeb::mqtt
