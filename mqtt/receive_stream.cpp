// From bytes to packets: reads the socket, reassembles packets across reads, drops what is larger than the
// buffer. Receive thread only.
#include <algorithm>
#include <array>
#include <cstring>

#include "mqtt/client_log.h"
#include "mqtt/recv_loop.h"
#include "mqtt/self_mqtt_impl.h"

namespace zeb::mqtt {
namespace {

constexpr char kRecvThread[] = "void zeb::mqtt::SelfMqttImpl::RecvThread()";
constexpr size_t kSkipBuffer = 16384;  // bytes read at a time of a packet that is dropped

}  // namespace

// One read, and all that it completes.
void SelfMqttImpl::ReceiveAvailable(RecvLoop& loop) {
  if (left_buf_size_ == k_max_rx_buf_) {
    SkipAvailable(loop);
    return;
  }
  const ssize_t received = loop.socket->Recv(loop.rx_buf.get() + left_buf_size_,
                                             static_cast<size_t>(k_max_rx_buf_ - left_buf_size_));
  received > 0 ? DecodeReceived(loop, static_cast<int>(received)) : EndOfStream(received);
}

// The same with the buffer full. Not inlined: what it puts on the stack every other read would move over.
[[gnu::noinline]] void SelfMqttImpl::SkipAvailable(RecvLoop& loop) {
  std::array<uint8_t, kSkipBuffer> skipped;  // filled before it is read
  const ssize_t received = loop.socket->Recv(skipped.data(), skipped.size());
  received > 0 ? SkipOversized(loop, skipped.data(), static_cast<int>(received)) : EndOfStream(received);
}

// A read brought no bytes.
void SelfMqttImpl::EndOfStream(ssize_t received) {
  if (received == util::SocketClient::k_nothing_now) return;
  if (received < 0) {
    if (StopOnItsWay()) {
      keep_thread_ = false;  // brokers reset as well as close after DISCONNECT
    } else {
      EndSession(kNetworkFailure);
    }
    return;
  }
  if (!StopOnItsWay()) {
    CLIENT_LOG_AS(kRecvThread, LOG_DEBUG, "Wrong syntax or disallowed operation may cause this problem");
    dis_reason_ = kPeerClosed;
  }
  keep_thread_ = false;
}

// The buffer holds the start of a packet that is larger than it. Its further bytes are counted and forgotten;
// what follows its end is kept.
void SelfMqttImpl::SkipOversized(RecvLoop& loop, const uint8_t* data, int rs) {
  const int total = GetPacketLength(loop.rx_buf.get(), static_cast<unsigned int>(left_buf_size_));
  extra_packet_size_ += rs;
  CLIENT_LOG_AS(kRecvThread, LOG_DEBUG,
                "total_packet_size [%d] extra_packet_size_ [%d] left_buf_size_ [%d] rs [%d]", total,
                extra_packet_size_, left_buf_size_, rs);
  if (total > left_buf_size_ + extra_packet_size_) return;
  const int extra_left = std::min(left_buf_size_ + extra_packet_size_ - total, rs);
  CLIENT_LOG_AS(kRecvThread, LOG_ERR,
                "Drop this too big packet total_packet_size [%d] extra_left [%d] rs [%d]", total, extra_left,
                rs);
  left_buf_size_ = 0;
  extra_packet_size_ = 0;
  if (extra_left <= 0) return;
  std::memcpy(loop.rx_buf.get(), data + rs - extra_left, static_cast<size_t>(extra_left));
  DecodeReceived(loop, extra_left);
}

// `rs` new bytes stand behind those held: decodes what is complete and keeps the rest at the front.
void SelfMqttImpl::DecodeReceived(RecvLoop& loop, int rs) {
  uint8_t* const buf = loop.rx_buf.get();
  const int held = left_buf_size_ + rs;
  int ds = 0;
  for (int dropped = 1; dropped > 0 && ds < held; ds += dropped) {
    ds += DecodePackets(buf + ds, static_cast<size_t>(held - ds));
    dropped = ds < held ? DropRefused(buf + ds, held - ds) : 0;
  }
  if (ds > held) {
    CLIENT_LOG_AS(kRecvThread, LOG_ERR, "Serious logic error");
    EndSession(kNetworkFailure);
    left_buf_size_ = 0;
    return;
  }
  left_buf_size_ = held - ds;
  if (left_buf_size_ == 0) return;
  if (ds > 0) std::memmove(buf, buf + ds, static_cast<size_t>(left_buf_size_));
  CLIENT_LOG_AS(kRecvThread, LOG_DEBUG, "Save buffer for future use left_buf_size_ [%u] rs [%zu] ds [%d]",
                static_cast<unsigned int>(left_buf_size_), static_cast<size_t>(rs), ds);
}

// Size of the complete packet at the front that the decoder refused; 0 when there is none. It must not stay
// in front of later packets.
int SelfMqttImpl::DropRefused(const uint8_t* buf, int len) const {
  constexpr int k_min_packet = 2;
  if (stop_requested_ || len < k_min_packet || buf[0] >> 4 != 0) return 0;
  const FixedHeader header = DecodeFixedHeader(buf, static_cast<size_t>(len));
  if (!header.CompleteWithin(static_cast<size_t>(len))) return 0;
  return static_cast<int>(header.size) + header.remaining_length;
}

}  // namespace zeb::mqtt
