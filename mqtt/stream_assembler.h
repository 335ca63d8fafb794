// From reads to packets: holds what a read left unfinished and skips a packet that is larger than the buffer.
// The receive thread has one on its stack, so nothing guards it. It reads no socket and writes no line.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "mqtt/codec/codec.h"
#include "util/zeroed_pages.h"

namespace zeb::mqtt {

class StreamAssembler {
 public:
  /// Allocates the buffer. False when there is no memory.
  bool Allocate(int32_t size) {
    size_ = size;
    rx_buf_ = util::MapZeroedPages(static_cast<size_t>(size));
    return rx_buf_ != nullptr;
  }

  /// The buffer is full with the start of a packet that is larger than it: the next read goes to Skip().
  [[nodiscard]] bool full() const { return left_buf_size_ == size_; }
  /// Where the next read goes otherwise.
  [[nodiscard]] uint8_t* room() const { return rx_buf_.get() + left_buf_size_; }
  [[nodiscard]] size_t room_size() const { return static_cast<size_t>(size_ - left_buf_size_); }

  /// Bytes held, of an unfinished packet.
  [[nodiscard]] int32_t left_buf_size() const { return left_buf_size_; }
  /// Bytes of an oversized packet beyond them.
  [[nodiscard]] int32_t extra_packet_size() const { return extra_packet_size_; }
  [[nodiscard]] const uint8_t* begin() const { return rx_buf_.get(); }

  /// `used` of the `held` bytes at the front have been decoded. Keeps the rest.
  void Keep(int used, int held) {
    left_buf_size_ = held - used;
    if (used > 0 && left_buf_size_ > 0)
      std::memmove(rx_buf_.get(), rx_buf_.get() + used, static_cast<size_t>(left_buf_size_));
  }
  /// Keeps nothing.
  void Clear() { left_buf_size_ = 0; }

  struct Skipped {
    int total = 0;       // bytes of the whole packet
    bool over = false;   // it ended within the read;
    int extra_left = 0;  // and so many bytes of the read came behind its end: they are at the front now
  };
  /// `count` bytes at `data` were read while the buffer was full.
  Skipped Skip(const uint8_t* data, int count) {
    Skipped skipped;
    skipped.total = Codec::GetPacketLength(rx_buf_.get(), static_cast<unsigned int>(left_buf_size_));
    extra_packet_size_ += count;
    const int beyond = left_buf_size_ + extra_packet_size_ - skipped.total;
    skipped.over = beyond >= 0;
    if (!skipped.over) return skipped;
    skipped.extra_left = std::min(beyond, count);
    std::memcpy(rx_buf_.get(), data + count - skipped.extra_left, static_cast<size_t>(skipped.extra_left));
    return skipped;
  }
  /// The oversized packet is over.
  void EndSkip() { left_buf_size_ = extra_packet_size_ = 0; }

  /// Size of the complete packet at `buf` that the decoder refuses, which must not stay in front of later
  /// packets; 0 when there is none.
  static int SizeOfRefused(const uint8_t* buf, int len) {
    constexpr int k_min_packet = 2;
    if (len < k_min_packet || buf[0] >> 4 != 0) return 0;
    const Codec::FixedHeader header = Codec::DecodeFixedHeader(buf, static_cast<size_t>(len));
    if (!header.CompleteWithin(static_cast<size_t>(len))) return 0;
    return static_cast<int>(header.size) + header.remaining_length;
  }

 private:
  util::ZeroedPages rx_buf_;
  int32_t size_ = 0;
  int32_t left_buf_size_ = 0;
  int32_t extra_packet_size_ = 0;
};

}  // namespace zeb::mqtt
