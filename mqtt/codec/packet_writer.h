// The bounded cursor through which every outbound byte goes. One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace zeb::mqtt {

/// Appends to a buffer that it does not own. Past the end it writes nothing but goes on counting, so that
/// size() tells how much room would have been needed. Callers ask fits() once, at the end.
class PacketWriter {
 public:
  static constexpr size_t k_max_string = 65535;
  static constexpr size_t k_max_vbi = 4;

  PacketWriter(uint8_t* begin, size_t capacity) : begin_(begin), capacity_(capacity) {}

  [[nodiscard]] uint8_t* begin() const { return begin_; }
  /// End of what was written; only meaningful while fits().
  [[nodiscard]] uint8_t* end() const { return begin_ + size_; }
  /// Bytes written, or needed.
  [[nodiscard]] size_t size() const { return size_; }
  /// Whether everything fits the buffer, and every string its two-byte length.
  [[nodiscard]] bool fits() const { return size_ <= capacity_ && !string_too_long_; }
  /// Whether a string is longer than its two-byte length can say.
  [[nodiscard]] bool string_too_long() const { return string_too_long_; }

  /// Takes `length` bytes for the caller to fill. Null if there is no room.
  uint8_t* Reserve(size_t length) {
    const size_t place = size_;
    size_ = length > SIZE_MAX - size_ ? SIZE_MAX : size_ + length;
    return size_ <= capacity_ ? begin_ + place : nullptr;
  }

  void AppendByte(uint8_t value) {
    if (uint8_t* place = Reserve(1)) *place = value;
  }

  void AppendUint16(uint16_t value) {
    AppendByte(static_cast<uint8_t>(value >> 8));
    AppendByte(static_cast<uint8_t>(value & 0xFF));
  }

  void AppendUint32(uint32_t value) {
    AppendUint16(static_cast<uint16_t>(value >> 16));
    AppendUint16(static_cast<uint16_t>(value & 0xFFFF));
  }

  /// Variable byte integer (MQTT 5.0, 1.5.5).
  void AppendVbi(uint32_t value) {
    do {
      const auto low = static_cast<uint8_t>(value & 0x7F);
      value >>= 7;
      AppendByte(value != 0 ? static_cast<uint8_t>(low | 0x80) : low);
    } while (value != 0);
  }

  /// Bytes as they are.
  void AppendBytes(const void* data, size_t length) {
    uint8_t* place = Reserve(length);
    if (place != nullptr && length != 0) std::memcpy(place, data, length);
  }

  /// Two-byte length and the bytes as they are (binary data, MQTT 5.0, 1.5.6).
  void AppendBinary(const std::string& data) {
    AppendLength(data.size());
    AppendBytes(data.data(), data.size());
  }

  /// Two-byte length and text (MQTT 5.0, 1.5.4). MQTT does not allow NUL in text: the bytes from the first
  /// NUL on are sent as zeros.
  void AppendString(const std::string& text) {
    AppendLength(text.size());
    uint8_t* place = Reserve(text.size());
    if (place == nullptr || text.empty()) return;
    const size_t copied = ::strnlen(text.data(), text.size());
    std::memcpy(place, text.data(), copied);
    std::memset(place + copied, 0, text.size() - copied);
  }

  /// Refuses the body if the text is longer than its two-byte length can say.
  void CheckString(const std::string& text) { CheckLength(text.size()); }

  /// Begins a block whose length will stand in front of it. Leaves room for the longest length and returns
  /// the place, for EndBlock.
  size_t BeginBlock() {
    const size_t place = size_;
    Reserve(k_max_vbi);
    return place;
  }

  /// Length of the block begun at `place`, so far.
  [[nodiscard]] size_t BlockLength(size_t place) const { return size_ - place - k_max_vbi; }

  /// Writes the block's length at `place` and moves the block up behind it. Does nothing if the buffer has
  /// been exceeded.
  void EndBlock(size_t place) {
    if (size_ > capacity_) return;
    const size_t length = BlockLength(place);
    size_ = place;
    AppendVbi(static_cast<uint32_t>(length));
    std::memmove(begin_ + size_, begin_ + place + k_max_vbi, length);
    size_ += length;
  }

 private:
  void CheckLength(size_t length) {
    if (length > k_max_string) string_too_long_ = true;
  }

  void AppendLength(size_t length) {
    CheckLength(length);
    AppendUint16(static_cast<uint16_t>(length & 0xFFFF));
  }

  uint8_t* begin_;
  size_t capacity_;
  size_t size_ = 0;
  bool string_too_long_ = false;
};

}  // namespace zeb::mqtt
