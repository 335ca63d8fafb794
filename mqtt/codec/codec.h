// Bytes and nothing else: MQTT's wire primitives and the properties of MQTT 5.0. The codec holds no state and
// knows neither sockets nor threads nor the client, so any thread may call it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "mqtt/codec/packet_writer.h"
#include "mqtt/codec/property_id.h"
#include "mqtt/mqtt_wrapper.h"

namespace zeb::mqtt {

using MsgType = MqttWrapper::MessageType;

class Codec {
 public:
  using PairedString = MqttWrapper::PairedString;
  using Properties = MqttWrapper::Properties;

  static constexpr unsigned int k_max_vbi_bytes = 4;  // of a variable byte integer that is read
  static constexpr uint8_t k_more_bytes_follow = 0x80;

  // ---- wire_primitives.cpp. Each works in place and returns the bytes that it wrote or consumed.
  static int EncodeVbi(unsigned char* buf, unsigned int value);
  static int EncodeFixedHeader(unsigned char* buf, unsigned int remaining_length, MsgType type, bool retain,
                               unsigned char qos, bool duplicate);
  static int EncodeString(unsigned char* buf, const std::string& text);
  static int DecodeVbi(const unsigned char* buf, unsigned int available, int& value);
  /// The decoders never read past `available`. They return 0 for a field that is not there as a whole.
  static int DecodeString(const unsigned char* buf, size_t available, std::string& text);
  static int DecodePairedString(const unsigned char* buf, size_t available, PairedString& pair);
  /// Total length of the packet at `buf`; 0 when its length field does not end within `available`.
  static int GetPacketLength(const unsigned char* buf, unsigned int available);

  /// A packet's type byte and remaining length.
  struct FixedHeader {
    size_t size = 0;  // bytes, as far as they have come in
    int remaining_length = 0;
    bool whole = false;  // whether the length field ends within these bytes

    /// Whether the whole packet is there, given the number of bytes at its front.
    [[nodiscard]] bool CompleteWithin(size_t available) const {
      return whole && static_cast<size_t>(remaining_length) <= available - size;
    }
  };
  /// `available` is 2 or more: no packet is shorter.
  static FixedHeader DecodeFixedHeader(const uint8_t* buf, size_t available) {
    FixedHeader header;
    const int length_bytes =
        DecodeVbi(buf + 1, static_cast<unsigned int>(available - 1), header.remaining_length);
    header.size = 1 + static_cast<size_t>(length_bytes);
    header.whole = (buf[length_bytes] & k_more_bytes_follow) == 0 || header.size > k_max_vbi_bytes;
    return header;
  }

  /// The acknowledgement that a request of this type and QoS calls for; RESERVED: none.
  static MsgType AckOf(MsgType request, uint8_t qos);
  /// Whether a packet of this type is an acknowledgement that a client may wait for.
  static bool IsAck(MsgType type);

  // ---- property_codec.cpp: MQTT 5.0 properties (2.2.2).
  /// Each writes one property at `buf` and returns the bytes written. A null `buf` gives -1 (for the pair:
  /// 0).
  static int EncodeProperty(uint8_t* buf, PairedString& pair, uint8_t identifier);
  static int EncodeProperty(uint8_t* buf, uint32_t value, uint8_t identifier);
  static int EncodeProperty(uint8_t* buf, uint16_t value, uint8_t identifier);
  static int EncodeProperty(uint8_t* buf, bool value, uint8_t identifier);
  static int EncodeProperty(uint8_t* buf, std::string& value, uint8_t identifier);
  /// These write through a writer, which refuses what does not fit.
  static void AppendProperty(PacketWriter& body, PairedString& pair, PropertyId identifier);
  static void AppendProperty(PacketWriter& body, uint32_t value, PropertyId identifier);
  static void AppendProperty(PacketWriter& body, uint16_t value, PropertyId identifier);
  static void AppendProperty(PacketWriter& body, bool value, PropertyId identifier);
  static void AppendProperty(PacketWriter& body, std::string& value, PropertyId identifier);
  /// Reads a property block of at most `len` bytes. Returns the size that the block declares, even if not all
  /// of it could be read.
  static int DecodeProperties(const uint8_t* buf, size_t len, MsgType type, Properties& properties);
};

}  // namespace zeb::mqtt
