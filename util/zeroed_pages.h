// Buffers that cost no memory until they are used. Any thread.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace zeb::util {

/// Gives pages back to the system.
struct UnmapPages {
  size_t size = 0;  // bytes
  void operator()(uint8_t* pages) const { ::munmap(pages, size); }
};
using ZeroedPages = std::unique_ptr<uint8_t[], UnmapPages>;

/// At least `size` zero bytes, or null. Straight from the system: the allocator might hand out, and clear,
/// memory used before, and would then pay for every page of a buffer that hardly ever holds more than one.
inline ZeroedPages MapZeroedPages(size_t size) {
  void* const pages = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return {pages != MAP_FAILED ? static_cast<uint8_t*>(pages) : nullptr, UnmapPages{size}};
}

}  // namespace zeb::util
