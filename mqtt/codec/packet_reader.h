// The bounded cursor through which every inbound byte is read. One thread at a time.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

namespace zeb::mqtt {

/// Reads from a buffer that it does not own, and never past its end. A read that fails does not move the
/// cursor and leaves its output alone.
class PacketReader {
 public:
  PacketReader(const uint8_t* begin, size_t length) : begin_(begin), length_(length) {}

  [[nodiscard]] const uint8_t* position() const { return begin_ + offset_; }
  [[nodiscard]] size_t offset() const { return offset_; }
  [[nodiscard]] size_t remaining() const { return length_ - offset_; }
  [[nodiscard]] bool empty() const { return offset_ == length_; }

  /// Moves on by `length` bytes, or to the end when there are fewer.
  void Skip(size_t length) { offset_ += std::min(length, remaining()); }

  bool ReadByte(uint8_t* value) {
    if (remaining() < 1) return false;
    *value = begin_[offset_++];
    return true;
  }

  bool ReadUint16(uint16_t* value) {
    if (remaining() < 2) return false;
    *value = static_cast<uint16_t>(begin_[offset_] << 8 | begin_[offset_ + 1]);
    offset_ += 2;
    return true;
  }

  bool ReadUint32(uint32_t* value) {
    if (remaining() < 4) return false;
    uint16_t high = 0;
    uint16_t low = 0;
    ReadUint16(&high);
    ReadUint16(&low);
    *value = static_cast<uint32_t>(high) << 16 | low;
    return true;
  }

  /// `length` bytes of any value.
  bool ReadBytes(size_t length, std::string* value) {
    if (remaining() < length) return false;
    value->assign(reinterpret_cast<const char*>(position()), length);
    offset_ += length;
    return true;
  }

  /// Two-byte length and that many bytes, NULs included.
  bool ReadString(std::string* value) {
    uint16_t length = 0;
    if (!ReadUint16(&length)) return false;
    if (ReadBytes(length, value)) return true;
    offset_ -= 2;
    return false;
  }

 private:
  const uint8_t* begin_;
  size_t length_;
  size_t offset_ = 0;
};

}  // namespace zeb::mqtt
