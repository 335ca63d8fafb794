// What packets are made of, byte for byte and up to each bound, in both directions: building blocks,
// properties, and what does not fit or is cut short.
#include <iomanip>
#include <iterator>
#include <sstream>
#include <string>

#include "mqtt/self_mqtt_impl.h"
#include "tests/codec/bytes.h"
#include "tests/support/log_capture.h"

namespace zeb::mqtt {
namespace {

using Client = SelfMqttImpl;
using Pair = MqttWrapper::PairedString;

void ExpectDecodedVbi(const Bytes& bytes, size_t consumed, unsigned int value) {
  int decoded = -1;
  EXPECT_EQ(Client::DecodeVbi(bytes.data(), static_cast<unsigned int>(bytes.size()), decoded),
            static_cast<int>(consumed));
  EXPECT_EQ(decoded, static_cast<int>(value));
}

int PacketLength(const Bytes& bytes) {
  return Client::GetPacketLength(bytes.data(), static_cast<unsigned int>(bytes.size()));
}

TEST(VariableByteInteger, IsWrittenAndReadUpToEachBoundAndWherePartsAreMissing) {
  const unsigned int values[] = {0,       127,       128,       16383,     16384, 2097151,
                                 2097152, 268435455, 268435456, UINT32_MAX};  // past four bytes only written
  const char* const bytes[] = {"00",     "7F",       "8001",     "FF7F",       "808001",
                               "FFFF7F", "80808001", "FFFFFF7F", "8080808001", "FFFFFFFF0F"};
  for (size_t i = 0; i < std::size(values); ++i) {
    SCOPED_TRACE(bytes[i]);
    const Bytes whole = Hex(bytes[i]);
    ExpectWrites(whole, [&](uint8_t* buf) { return Client::EncodeVbi(buf, values[i]); });
    if (whole.size() > 4) continue;
    ExpectDecodedVbi(whole, whole.size(), values[i]);
    ExpectDecodedVbi(whole + Hex("FF"), whole.size(), values[i]);
    EXPECT_EQ(PacketLength(Hex("30") + whole), static_cast<int>(1 + whole.size() + values[i]));
    for (size_t size = 0; size < whole.size(); ++size) {
      ExpectDecodedVbi(Front(whole, size), size, values[i] & ((1U << (7 * size)) - 1));
      EXPECT_EQ(PacketLength(Hex("30") + Front(whole, size)), 0);
    }
  }
  ExpectDecodedVbi(Hex("FFFFFFFF"), 4, 268435455);
  EXPECT_EQ(PacketLength({}), 0);
  EXPECT_EQ(PacketLength(Hex("30 FFFFFFFF")), 268435461);  // a fourth byte that goes on counts as five
}

TEST(String, IsWrittenBehindItsLengthAndReadOnlyWhenItStandsThereWhole) {
  for (const size_t length : {0U, 1U, 3U, 258U, 65535U}) {
    SCOPED_TRACE(length);
    const std::string text(length, 'x');
    const Bytes size = {static_cast<uint8_t>(length / 256), static_cast<uint8_t>(length % 256)};
    const Bytes whole = size + Bytes(length, 'x');
    ExpectWrites(whole, [&](uint8_t* buf) { return Client::EncodeString(buf, text); });
    for (const size_t there : {size_t{0}, size_t{1}, whole.size() - 1, whole.size(), whole.size() + 1}) {
      const Bytes bytes = Front(whole + Hex("99"), there);
      std::string read = "before";
      const bool complete = there >= whole.size();
      EXPECT_EQ(Client::DecodeString(bytes.data(), there, read), complete ? static_cast<int>(length) + 2 : 0);
      EXPECT_EQ(read, complete ? text : "before");
    }
  }
  // Text ends at its first NUL when written, not when read.
  const std::string with_nul("a\0c", 3);
  ExpectWrites(Hex("0003 610000"), [&](uint8_t* buf) { return Client::EncodeString(buf, with_nul); });
  std::string read;
  EXPECT_EQ(Client::DecodeString(Hex("0003 610063").data(), 5, read), 5);
  EXPECT_EQ(read, with_nul);
}

TEST(StringPair, IsReadOnlyWhenBothStringsStandThereWhole) {
  const Bytes whole = Hex("0001 'k' 0002 'vw'");
  for (size_t there = 0; there <= whole.size(); ++there) {
    const bool complete = there == whole.size();
    Pair pair{"key", "val"};
    EXPECT_EQ(Client::DecodePairedString(Front(whole, there).data(), there, pair), complete ? 7 : 0);
    EXPECT_EQ(pair.key + ":" + pair.val, complete ? "k:vw" : "key:val") << there;
  }
}

template <typename Value>
void ExpectProperty(const char* hex, Value value, uint8_t identifier) {
  SCOPED_TRACE(hex);
  ExpectWrites(Hex(hex), [&](uint8_t* buf) { return Client::EncodeProperty(buf, value, identifier); });
  EXPECT_LE(Client::EncodeProperty(nullptr, value, identifier), 0);
}

TEST(PropertyEncoding, WritesIdentifierAndValue) {
  ExpectProperty("27 FEDCBA98", 0xFEDCBA98U, 0x27);
  ExpectProperty("22 FFFE", uint16_t{0xFFFE}, 0x22);
  ExpectProperty("19 01", true, 0x19);
  ExpectProperty("08 0003 'a/b'", std::string("a/b"), 0x08);
  ExpectProperty("26 0001 'k' 0002 'vw'", Pair{"k", "vw"}, 0x26);
  for (Pair half : {Pair{"k", ""}, Pair{"", "v"}}) {
    EXPECT_EQ(Client::EncodeProperty(Bytes(1).data(), half, 0x26), 0);
  }
}

TEST(PropertyBlock, MovesUpBehindItsLength) {
  for (const size_t size : {0U, 127U, 128U, 16384U}) {
    Bytes properties(size);
    for (size_t i = 0; i < size; ++i) properties[i] = static_cast<uint8_t>(i % 251);
    Bytes length(size < 128 ? 1 : size < 16384 ? 2 : 3);
    Client::EncodeVbi(length.data(), static_cast<unsigned int>(size));
    Bytes buffer(1 + PacketWriter::k_max_vbi + size);
    PacketWriter writer(buffer.data(), buffer.size());
    writer.AppendByte(0xAA);
    const size_t place = writer.BeginBlock();
    writer.AppendBytes(properties.data(), size);
    writer.EndBlock(place);
    EXPECT_TRUE(writer.fits() && Bytes(writer.begin(), writer.end()) == Hex("AA") + length + properties);
  }
}

TEST(PacketWriter, CountsOnPastTheEndAndWritesNothingThere) {
  Bytes buffer = Hex("EEEEEEEE");  // not Bytes(4, 0xEE): g++ -O3 would see the size and warn in error
  PacketWriter writer(buffer.data(), buffer.size());
  const std::string text = "text";
  writer.AppendUint16(0x0102);
  writer.AppendUint32(0x03040506);
  writer.AppendVbi(128);
  writer.AppendString(text);
  writer.AppendBinary(text);
  writer.AppendBytes(text.data(), text.size());
  EXPECT_EQ(writer.size(), 2U + 4 + 2 + 6 + 6 + 4);
  EXPECT_EQ(buffer, (Bytes{1, 2, 3, 4}));
  EXPECT_EQ(writer.Reserve(SIZE_MAX), nullptr);
  EXPECT_EQ(writer.size(), SIZE_MAX);  // and does not wrap into the buffer again
  EXPECT_FALSE(writer.fits());
}

// Every field that is not at its default, in the notation of its bytes.
std::string Described(const MqttWrapper::Properties& p) {
  constexpr int numbers[] = {0x11, 0x13, 0x21, 0x22, 0x23, 0x24, 0x25, 0x27, 0x28, 0x29, 0x2A};
  constexpr int digits[] = {8, 4, 4, 4, 4, 2, 2, 8, 2, 2, 2};
  const auto list = [](auto... value) { return std::vector<int64_t>{int64_t{value}...}; };
  const auto values = list(p.session_expiry_interval, p.server_keep_alive, p.receive_maximum,
                           p.topic_alias_maximum, p.topic_alias, p.maximum_qos, p.retain_available,
                           p.maximum_packet_size, p.wildcard_subscription_available,
                           p.subscription_identifier_available, p.shared_subscription_available);
  constexpr int strings[] = {0x12, 0x15, 0x1A, 0x1C, 0x1F};
  const std::string texts[] = {p.assigned_client_identifier, p.authentication_method, p.response_information,
                               p.server_reference, p.reason_string};
  const auto quoted = [](const std::string& s) { return "000" + std::to_string(s.size()) + " '" + s + "' "; };
  std::ostringstream out;
  out << std::hex << std::uppercase << std::setfill('0');
  for (size_t i = 0; i < std::size(values); ++i) {
    if (values[i] != 0) out << numbers[i] << " " << std::setw(digits[i]) << values[i] << " ";
  }
  for (size_t i = 0; i < std::size(texts); ++i) {
    if (!texts[i].empty()) out << strings[i] << " " << quoted(texts[i]);
  }
  for (const auto& pair : p.user_property) out << "26 " << quoted(pair.key) << quoted(pair.val);
  return out.str();
}

// Decodes the block and expects its declared size, the fields and, when it does not parse, the warning.
void ExpectDecoded(const Bytes& bytes, size_t declared, const std::string& fields, bool valid) {
  SCOPED_TRACE(testing::PrintToString(bytes));
  const test::LogCapture log;
  MqttWrapper::Properties properties;
  EXPECT_EQ(Client::DecodeProperties(bytes.data(), bytes.size(), MsgType::SUBACK, properties),
            static_cast<int>(declared));
  EXPECT_EQ(Described(properties), fields);
  EXPECT_EQ(log.Count("Invalid property parsing for [9]\n"), valid ? 0 : 1);
}

TEST(PropertyDecoding, KeepsEveryKnownPropertyWholeAndNoneThatIsCutShort) {
  for (const std::string property :
       {"11 FEDCBA98", "12 0002 'id'", "13 FFFE", "15 0001 'm'", "1A 0001 'r'", "1C 0001 's'",
        "1F 0003 'why'", "21 0102", "22 0103", "23 0104", "24 FF", "25 01", "26 0001 'k' 0002 'vw'",
        "27 00020000", "28 01", "29 01", "2A 01"}) {
    const Bytes whole = Hex(property);
    const Bytes length = {static_cast<uint8_t>(whole.size())};
    ExpectDecoded(length + whole, 1 + whole.size(), property + " ", true);
    ExpectDecoded(length + whole + Hex("24 01 99"), 1 + whole.size(), property + " ", true);
    for (size_t size = 1; size < whole.size(); ++size) {
      const Bytes cut = {static_cast<uint8_t>(size)};
      ExpectDecoded(length + Front(whole, size), 1 + whole.size(), "", false);
      ExpectDecoded(cut + Front(whole, size), 1 + size, "", false);
      ExpectDecoded(cut + whole, 1 + size, "", false);
    }
  }
}

TEST(PropertyDecoding, ReturnsTheDeclaredSizeWhateverTheBlockHolds) {
  ExpectDecoded(Hex(""), 0, "", true);
  ExpectDecoded(Hex("00 24 01"), 1, "", true);
  ExpectDecoded(Hex("04 24 01 25 00"), 5, "24 01 ", true);
  ExpectDecoded(Hex("8300 13 003C 99"), 5, "13 003C ", true);
  ExpectDecoded(Hex("0B 26 0000 0001 '2' 26 0000 0000"), 12, "26 0000 '' 0001 '2' 26 0000 '' 0000 '' ", true);
  ExpectDecoded(Hex("03 0B 24 02"), 4, "24 02 ", true);  // an identifier of no use counts as having no value
  ExpectDecoded(Hex("06 25 01 1F FFFF 24"), 7, "25 01 ", false);  // what came before the fault stays
  ExpectDecoded(Hex("7F 25 01"), 128, "25 01 ", false);
  ExpectDecoded(Hex("FFFFFF7F"), 268435459, "", false);
  ExpectDecoded(Hex("8180"), 3, "", false);  // a size that does not end
  Bytes twenty;
  for (int i = 0; i < 20; ++i) twenty = twenty + Bytes{0x24, static_cast<uint8_t>(i + 1)};
  ExpectDecoded(Bytes{40} + twenty, 41, "24 14 ", true);
  ExpectDecoded(Bytes{42} + twenty + Hex("24 15"), 43, "24 14 ", false);
}

}  // namespace
}  // namespace zeb::mqtt
