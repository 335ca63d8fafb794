// Literal bytes for the codec tests, each set in a heap block of exactly its size, so that AddressSanitizer
// sees a read or write that goes one byte too far.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/scripted_broker.h"

namespace zeb::mqtt {

using Bytes = std::vector<uint8_t>;

inline Bytes Hex(const std::string& text) {
  const std::string bytes = test::Bytes(text);
  return Bytes(bytes.begin(), bytes.end());
}

inline Bytes operator+(const Bytes& front, const Bytes& back) {
  Bytes joined(front.size() + back.size());
  std::copy(back.begin(), back.end(), std::copy(front.begin(), front.end(), joined.begin()));
  return joined;
}

/// The first `size` bytes.
inline Bytes Front(const Bytes& bytes, size_t size) {
  return Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
}

/// What `encode(buffer)` writes into a buffer that is just large enough for `expected`.
template <typename Encode>
void ExpectWrites(const Bytes& expected, Encode encode) {
  Bytes written(expected.size(), 0xEE);
  EXPECT_EQ(encode(written.data()), static_cast<int>(expected.size()));
  EXPECT_EQ(written, expected);
}

}  // namespace zeb::mqtt
