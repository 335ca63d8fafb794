// The strict parser.
#include <cstring>
#include <map>
#include <set>

#include "fuzz/harness.h"

namespace zeb::fuzz {
namespace {

// The packets that a client sends, by their types: Connect, Publish, Acknowledgement, Subscribe, Unsubscribe,
// pIng, Disconnect.
constexpr char k_packets[] = "-C-PAAAAS-U-I-D-";
// The properties that may stand in them; W: in the will.
const std::map<char, std::string> k_allowed = {{'C', "\x11\x15\x16\x17\x19\x21\x22\x26\x27"},
                                               {'W', "\x01\x02\x03\x08\x09\x18\x26"},
                                               {'P', "\x01\x02\x03\x08\x09\x23\x26"},
                                               {'A', "\x1F\x26"},
                                               {'S', "\x0B\x26"},
                                               {'U', "\x26"},
                                               {'D', "\x11\x1C\x1F\x26"}};
// Their values, by their identifiers: t text, p a pair, v a variable byte integer, b a flag, else so many
// bytes.
constexpr char k_forms[] = "-b4t----tt-v-----4---ttb4b--t--t-222--p4";

struct Parser {
  std::string Bytes(size_t size) {
    Require(size <= end - at, "a field within its packet");
    at += size;
    return bytes.substr(at - size, size);
  }
  unsigned Number(size_t size) {
    unsigned value = 0;
    for (const char byte : Bytes(size)) value = value << 8 | static_cast<uint8_t>(byte);
    return value;
  }
  unsigned Vbi() {
    const Length length(bytes, at);
    Require(length.ends && (length.size == 1 || bytes[at + length.size - 1] != 0), "the shortest length");
    Bytes(length.size);
    return static_cast<unsigned>(length.value);
  }
  void Text() { packet.texts.push_back(Bytes(Number(2))); }

  void Properties(char where) {
    if (!mqtt5) return;
    const size_t size = Vbi(), packet_end = end;
    Require(size <= end - at, "properties within their packet");
    end = at + size;
    for (std::set<unsigned> seen; at < end;) {
      const unsigned identifier = Vbi();
      const bool allowed = k_allowed.at(where).find(static_cast<char>(identifier)) != std::string::npos;
      Require(allowed && identifier < sizeof k_forms, "a property that this packet may have");
      const char form = k_forms[identifier];
      Require(seen.insert(identifier).second || form == 'p', "a property only once");
      if (form == 't' || form == 'p') Text();
      if (form == 'p') Text();
      if (form == 'b') Require(Number(1) < 2, "a flag");
      if (form == 'v') Require(Vbi() > 0, "a subscription identifier");
      if (form == '2' || form == '4') Number(form == '2' ? 2 : 4);
    }
    end = packet_end;
  }
  void Connect() {
    Text();
    Require(packet.texts[0] == "MQTT" && Number(1) == (mqtt5 ? 5 : 4), "the protocol");
    const unsigned flags = Number(1);
    Require((flags & 1) == 0 && ((flags & 4) != 0 || (flags & 0x38) == 0), "flags that agree");
    Number(2);
    Properties('C');
    Text();
    if ((flags & 4) != 0) Properties('W');
    for (const unsigned flag : {4U, 4U, 0x80U, 0x40U}) {  // will topic and payload, user name, password
      if ((flags & flag) != 0) Text();
    }
  }
  void Body(unsigned type, unsigned flags) {
    const char kind = k_packets[type];
    const unsigned qos = flags >> 1 & 3;
    Require(kind == 'P' ? qos < 3 : flags == (type == 6 || kind == 'S' || kind == 'U' ? 2 : 0),
            "reserved flags");
    if (kind == 'C') Connect();
    if (kind == 'P') Text();
    if (kind == 'P' ? qos != 0 : std::strchr("ASU", kind) != nullptr) packet.identifier = Number(2);
    if (std::strchr("AD", kind) != nullptr && mqtt5 && at < end) Number(1);  // a reason; it may be left out
    if (std::strchr("AD", kind) != nullptr ? at < end : std::strchr("PSU", kind) != nullptr) Properties(kind);
    if (kind == 'P') packet.texts.push_back(Bytes(end - at));
    while (std::strchr("SU", kind) != nullptr && at < end) {
      Text();
      const unsigned options = kind == 'S' ? Number(1) : 0;
      Require((options & 3) < 3 && options < (mqtt5 ? 0x30 : 3), "subscription options");
    }
    Require(kind != '-' && at == end, "a packet that a client may send, without bytes behind it");
  }

  const std::string& bytes;
  const bool mqtt5;
  size_t at = 0, end = bytes.size();
  ClientPacket packet{};
};

}  // namespace

ClientPacket ParseClientPacket(const std::string& bytes, bool mqtt5) {
  Parser parser{bytes, mqtt5};
  parser.packet.first_byte = parser.Number(1);
  Require(parser.Vbi() == parser.end - parser.at, "the remaining length");
  parser.Body(parser.packet.first_byte >> 4, parser.packet.first_byte & 15);
  return parser.packet;
}

}  // namespace zeb::fuzz
