// Buffers that cost no memory until they are used. Any thread.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

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

/// `size` zero bytes, a multiple of the page, or null. Straight from the system: the allocator might hand
/// out, and clear, memory used before, and would then pay for every page of a buffer that hardly ever holds
/// more than one. Behind them stands a page that nobody may touch: a byte too far ends the process, and is
/// nobody else's.
inline ZeroedPages MapZeroedPages(size_t size) {
  const size_t guarded = size + static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  void* const pages = ::mmap(nullptr, guarded, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (pages == MAP_FAILED) return nullptr;
  ZeroedPages zeroed(static_cast<uint8_t*>(pages), UnmapPages{guarded});
  if (::mprotect(pages, size, PROT_READ | PROT_WRITE) != 0) zeroed.reset();
  return zeroed;
}

}  // namespace zeb::util
