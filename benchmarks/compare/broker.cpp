// Sessions of the minimal broker, over one epoll loop. One thread.
#include "benchmarks/compare/broker.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>

#include "benchmarks/compare/peer.h"

namespace zeb::bench {
namespace {

constexpr long k_flood_chunk = 1'000;  // messages
constexpr size_t k_read_size = 262'144;

unsigned At(const std::string& bytes, size_t at) { return static_cast<unsigned char>(bytes[at]); }
size_t Uint16At(const std::string& bytes, size_t at) { return At(bytes, at) << 8 | At(bytes, at + 1); }
void AppendUint16(std::string& bytes, size_t value) {
  bytes += static_cast<char>(value >> 8 & 0xFF);
  bytes += static_cast<char>(value & 0xFF);
}

/// One client's connection. The descriptor is non-blocking.
class Session {
 public:
  Session(int fd, SSL_CTX* tls, Counts& counts) : fd_(fd), counts_(counts) {
    if (tls == nullptr) return;
    tls_ = SSL_new(tls);
    SSL_set_fd(tls_, fd);
    SSL_set_accept_state(tls_);
  }
  ~Session() {
    SSL_free(tls_);
    ::close(fd_);
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Reads and writes until neither can continue. Returns false if the session is over.
  bool Serve() {
    static std::string buffer(k_read_size, '\0');
    ERR_clear_error();  // errors of other sessions
    if (!Flush()) return false;
    for (ssize_t size = Read(buffer); size != k_later; size = Read(buffer)) {
      if (size <= 0) return false;
      in_.append(buffer, 0, static_cast<size_t>(size));
      if (!AnswerPackets() || !Flush()) return false;
    }
    return true;
  }

 private:
  static constexpr ssize_t k_later = -2;

  [[nodiscard]] ssize_t Outcome(ssize_t size) const {
    if (size > 0) return size;
    if (tls_ == nullptr) return size < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) ? k_later : size;
    const int error = SSL_get_error(tls_, static_cast<int>(size));
    return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE ? k_later : 0;
  }
  ssize_t Read(std::string& buffer) {
    const int limit = static_cast<int>(buffer.size());
    return Outcome(tls_ != nullptr ? SSL_read(tls_, buffer.data(), limit)
                                   : ::recv(fd_, buffer.data(), buffer.size(), 0));
  }

  bool Flush() {
    for (;;) {
      if (out_.empty()) RefillFlood();
      if (out_.empty()) return true;
      const ssize_t sent =
          Outcome(tls_ != nullptr ? SSL_write(tls_, out_.data(), static_cast<int>(out_.size()))
                                  : ::send(fd_, out_.data(), out_.size(), MSG_NOSIGNAL));
      if (sent == k_later) return true;
      if (sent <= 0) return false;
      out_.erase(0, static_cast<size_t>(sent));
    }
  }

  void RefillFlood() {
    const long count = std::min(k_flood_chunk, flood_end_ - flood_next_);
    if (count <= 0) return;
    if (flood_next_ == 0) counts_.flood_start_ns = NowNs();
    out_ = FloodPackets(flood_topic_, flood_qos_, flood_next_, count, flood_size_);
    flood_next_ += count;
  }

  // Answers the complete packets at the front of `in_`. Returns false after the last one of the session.
  bool AnswerPackets() {
    size_t at = 0;
    bool goes_on = true;
    while (goes_on) {
      size_t length = 0, header = 1;
      bool ends = false;
      for (int shift = 0; !ends && at + header < in_.size(); shift += 7, ++header) {
        length |= (At(in_, at + header) & 0x7FU) << shift;
        ends = At(in_, at + header) < 0x80;
      }
      if (!ends || in_.size() - at - header < length) break;
      goes_on = Answer(At(in_, at), at + header, length);
      at += header + length;
    }
    in_.erase(0, at);
    return goes_on;
  }

  bool Answer(unsigned first_byte, size_t at, size_t length) {
    switch (first_byte >> 4) {
      case 1:
        ++counts_.connects;
        out_.append("\x20\x02\x00\x00", 4);
        return At(in_, at + 6) == 4;  // the protocol level: MQTT 3.1.1 only
      case 3:
        TakePublish(first_byte >> 1 & 3U, at, length);
        return true;
      case 4:
        counts_.last_acknowledgement_ns = NowNs();
        ++counts_.acknowledgements;
        return true;
      case 6:
        ++counts_.publishes[2];
        Acknowledge('\x70', at);
        return true;
      case 8:
        TakeSubscribe(at);
        return true;
      case 12:
        out_.append("\xD0\x00", 2);
        return true;
      case 14:
        ++counts_.disconnects;
        return false;
      default:
        return false;
    }
  }

  void Acknowledge(char type, size_t identifier_at) {
    out_ += {type, '\x02', in_[identifier_at], in_[identifier_at + 1]};
  }

  void TakePublish(unsigned qos, size_t at, size_t length) {
    const size_t topic = 2 + Uint16At(in_, at);
    counts_.payload_bytes += static_cast<long>(length - topic - (qos != 0 ? 2 : 0));
    if (qos != 2) ++counts_.publishes[qos];
    if (qos != 0) Acknowledge(qos == 1 ? '\x40' : '\x50', at + topic);
  }

  void TakeSubscribe(size_t at) {
    const size_t size = Uint16At(in_, at + 2);
    const std::string filter = in_.substr(at + 4, size);
    out_ += {'\x90', '\x03', in_[at], in_[at + 1], in_[at + 4 + size]};
    if (std::sscanf(filter.c_str(), "flood/%d/%ld/%zu", &flood_qos_, &flood_end_, &flood_size_) != 3) return;
    flood_topic_ = filter;
    flood_next_ = 0;
  }

  const int fd_;
  SSL* tls_ = nullptr;
  Counts& counts_;
  std::string in_, out_, flood_topic_;
  int flood_qos_ = 0;
  long flood_next_ = 0, flood_end_ = 0;  // messages
  size_t flood_size_ = 0;                // payload bytes
};

}  // namespace

std::string FloodPackets(const std::string& topic, int qos, long first, long count, size_t size) {
  size_t length = 2 + topic.size() + (qos != 0 ? 2 : 0) + size;
  std::string header(1, static_cast<char>(0x30 | qos << 1));
  for (bool more = true; more; length >>= 7) {
    more = length > 0x7F;
    header += static_cast<char>((length & 0x7F) | (more ? 0x80 : 0));
  }
  AppendUint16(header, topic.size());
  header += topic;
  std::string packets;
  for (long i = first; i < first + count; ++i) {
    packets += header;
    if (qos != 0) AppendUint16(packets, static_cast<size_t>(1 + i % 65'535));
    packets.append(size, 'x');
  }
  return packets;
}

void RunBroker(int listener, SSL_CTX* tls, Counts& counts) {
  const int poll = ::epoll_create1(EPOLL_CLOEXEC);
  epoll_event wanted{EPOLLIN, {}};
  ::epoll_ctl(poll, EPOLL_CTL_ADD, listener, &wanted);
  for (epoll_event events[64];;) {
    const int ready = ::epoll_wait(poll, events, 64, -1);
    for (int i = 0; i < ready; ++i) {
      auto* const session = static_cast<Session*>(events[i].data.ptr);
      if (session == nullptr) {
        const int fd = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) continue;
        const int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        epoll_event both{EPOLLIN | EPOLLOUT | EPOLLET, {}};
        both.data.ptr = new Session(fd, tls, counts);
        ::epoll_ctl(poll, EPOLL_CTL_ADD, fd, &both);
      } else if (!session->Serve()) {
        delete session;
      }
    }
  }
}

}  // namespace zeb::bench
