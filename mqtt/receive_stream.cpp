// The receive thread's reads. Receive thread only.
#include <array>

#include "mqtt/client_log.h"
#include "mqtt/recv_loop.h"

namespace zeb::mqtt {
namespace {

constexpr char kRecvThread[] = "void zeb::mqtt::SelfMqttImpl::RecvThread()";
constexpr size_t kSkipBuffer = 16384;  // bytes read at a time of a packet that is dropped

}  // namespace

void SelfMqttImpl::RecvLoop::ReceiveAvailable() {
  if (stream.full()) return SkipAvailable();
  const ssize_t received = socket->Recv(stream.room(), stream.room_size());
  received > 0 ? DecodeReceived(static_cast<int>(received)) : EndOfStream(received);
}

// The same while a packet larger than the buffer is skipped. Inlined, the array would cost every other read
// its room on the stack.
[[gnu::noinline]] void SelfMqttImpl::RecvLoop::SkipAvailable() {
  std::array<uint8_t, kSkipBuffer> data;
  const ssize_t received = socket->Recv(data.data(), data.size());
  if (received <= 0) return EndOfStream(received);
  const auto rs = static_cast<int>(received);
  const StreamAssembler::Skipped skipped = stream.Skip(data.data(), rs);
  CLIENT_LOG_AS(kRecvThread, LOG_DEBUG,
                "total_packet_size [%d] extra_packet_size_ [%d] left_buf_size_ [%d] rs [%d]", skipped.total,
                stream.extra_packet_size(), stream.left_buf_size(), rs);
  if (!skipped.over) return;
  stream.EndSkip();
  CLIENT_LOG_AS(kRecvThread, LOG_ERR,
                "Drop this too big packet total_packet_size [%d] extra_left [%d] rs [%d]", skipped.total,
                skipped.extra_left, rs);
  if (skipped.extra_left > 0) DecodeReceived(skipped.extra_left);
}

// A read brought no bytes.
void SelfMqttImpl::RecvLoop::EndOfStream(ssize_t received) {
  if (received == util::SocketClient::k_nothing_now) return;
  session.keep_thread_ = false;
  if (session.StopOnItsWay()) return;  // brokers reset as well as close after DISCONNECT
  if (received < 0) return client.EndSession(session, k_network_failure);
  CLIENT_LOG_AS(kRecvThread, LOG_DEBUG, "Wrong syntax or disallowed operation may cause this problem");
  client.dis_reason_ = k_peer_closed;
}

// `rs` new bytes stand behind those held. Decodes what is complete and keeps the rest.
void SelfMqttImpl::RecvLoop::DecodeReceived(int rs) {
  const uint8_t* const buf = stream.begin();
  const int held = stream.left_buf_size() + rs;
  int ds = 0;
  for (int dropped = 1; dropped > 0 && ds < held; ds += dropped) {
    ds += client.DecodePackets(session, buf + ds, static_cast<size_t>(held - ds));
    dropped = ds < held && !session.stop_asked() ? StreamAssembler::SizeOfRefused(buf + ds, held - ds) : 0;
  }
  if (ds > held) {
    CLIENT_LOG_AS(kRecvThread, LOG_ERR, "Serious logic error");
    client.EndSession(session, k_network_failure);
    return stream.Clear();
  }
  stream.Keep(ds, held);
  if (ds == held) return;
  CLIENT_LOG_AS(kRecvThread, LOG_DEBUG, "Save buffer for future use left_buf_size_ [%u] rs [%zu] ds [%d]",
                static_cast<unsigned int>(stream.left_buf_size()), static_cast<size_t>(rs), ds);
}

}  // namespace zeb::mqtt
