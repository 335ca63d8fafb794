// A stream cut into any pieces comes to the same as its packets decoded one by one: messages, events,
// answers, reason of the end, and the bytes left over. Packets beyond the receive buffer are skipped.
#include <syslog.h>

#include <cstring>

#include "fuzz/harness.h"
#include "mqtt/recv_loop.h"

using namespace zeb;
using mqtt::SelfMqttImpl;
using Peer = mqtt::SelfMqttImplPeer;

namespace {

constexpr size_t k_buffer = 131072;

// 0xFE: a packet's first byte and length, its first fields' size and bytes;
// anything else stands for itself.
std::string ReadStream(fuzz::Input& in) {
  std::string stream;
  while (in.at < in.bytes.size() && stream.size() < k_buffer + 20'000) {
    const uint8_t byte = in.Byte();
    stream += static_cast<char>(byte == 0xFE ? in.Byte() : byte);
    if (byte != 0xFE) continue;
    const auto size = static_cast<unsigned>(in.Number(3) % 200'001);
    uint8_t length[5];
    stream.append(length, length + SelfMqttImpl::EncodeVbi(length, size));
    const std::string fields = in.Bytes(std::min(in.Byte() & 15U, size));
    stream.append(fields).append(size - fields.size(), '\xFF');  // no packets, should they be read as such
  }
  return stream;
}

struct Receiver {
  explicit Receiver(uint8_t mode) {
    client = fuzz::NewClient((mode & 1) != 0, [this](auto& message) {
      outcome += std::to_string(message.message_id) + message.topic + '|' + message.payload + '\n';
    });
    fuzz::wire.end = (mode & 2) != 0 ? 0 : (mode & 4) != 0 ? -1 : util::SocketClient::k_nothing_now;
    loop = std::make_unique<Peer::RecvLoop>(*client, *Peer::Current(*client));
    fuzz::Require(loop->stream.Allocate(k_buffer), "memory");
  }
  std::string Finish() {
    loop->ReceiveAvailable();  // the stream's end
    std::vector<int> numbers{Peer::DisReason(*client), Peer::KeepThread(*client) ? 1 : 0};
    for (const auto& event : Peer::QueuedEvents(*client)) {
      const std::initializer_list<int> codes = {
          static_cast<int>(event.type), event.message_id, event.connect_ack.reason_code,
          event.subscription_ack.reason_code, event.unsubscription_ack.reason_code};
      numbers.insert(numbers.end(), codes);
    }
    for (const auto& due : Peer::DueReleases(*client)) numbers.push_back(due.message_id);
    for (const int number : numbers) outcome += std::to_string(number) + ' ';
    for (const std::string& packet : fuzz::wire.sent) outcome += packet;
    return outcome;
  }
  std::unique_ptr<SelfMqttImpl> client;
  std::unique_ptr<Peer::RecvLoop> loop;
  std::string outcome;
};

// Decodes each packet in a block of its own; returns where the unfinished one begins.
size_t DecodeOneByOne(SelfMqttImpl& client, const std::string& stream) {
  for (size_t at = 0;;) {
    const fuzz::Length length(stream, at + 1);
    size_t total = 1 + length.size + length.value;
    const bool too_large = total > k_buffer;
    // A length that never ends counts one byte more where it is skipped.
    if (too_large && !length.ends) ++total;
    if ((!length.ends && length.size < 4) || total > stream.size() - at) return at;
    const std::vector<char> packet(&stream[at], &stream[at] + total);
    const int used =
        too_large ? 0 : client.DecodePacket(reinterpret_cast<const uint8_t*>(packet.data()), total);
    at += used > 0 ? static_cast<size_t>(used) : total;
  }
}

}  // namespace

// First byte: MQTT 5.0, how the stream ends, what is logged; then the number of pieces and their sizes (two
// bytes behind one above 127; 0: nothing is there yet), and the stream.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  const uint8_t mode = in.Byte();
  ::setlogmask(LOG_UPTO((mode & 8) != 0 ? LOG_DEBUG : LOG_ERR));  // lines in debug take most of the time
  std::deque<size_t> pieces(in.Byte());
  for (size_t& piece : pieces) {
    piece = in.Byte();
    if (piece > 127) piece = static_cast<size_t>(in.Number(2)) * 2 + (piece & 1);
  }
  const std::string stream = ReadStream(in);

  Receiver one_by_one(mode);
  const std::string rest = stream.substr(DecodeOneByOne(*one_by_one.client, stream));
  const std::string expected = one_by_one.Finish();
  Receiver split(mode);
  fuzz::wire.inbound = stream;
  fuzz::wire.pieces = pieces;
  // Also beyond a DISCONNECT, where the thread would read no more. Each call takes a piece or more.
  for (size_t calls = pieces.size() + stream.size(); calls > 0 && fuzz::wire.received < stream.size();
       --calls) {
    split.loop->ReceiveAvailable();
  }
  fuzz::Require(split.Finish() == expected, "the same messages, events, answers and end");
  const mqtt::StreamAssembler& left = split.loop->stream;
  const auto held = static_cast<size_t>(left.left_buf_size());
  const auto skipped = static_cast<size_t>(left.extra_packet_size());
  fuzz::Require(held == std::min(rest.size(), k_buffer) && held + skipped == rest.size(),
                "as many bytes left");
  fuzz::Require(std::memcmp(left.begin(), rest.data(), held) == 0, "the same bytes left");
  return 0;
}
