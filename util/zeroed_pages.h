// Buffers whose pages take no memory until they are used. Any thread.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace zeb::util {

/// Returns the pages to the system.
struct UnmapPages {
  size_t size = 0;  // bytes
  void operator()(uint8_t* pages) const { ::munmap(pages, size); }
};
using ZeroedPages = std::unique_ptr<uint8_t[], UnmapPages>;

/// Returns `size` zero bytes (a multiple of the page size), or null. They come directly from the system: the
/// allocator might reuse memory and clear it, which would use up every page of a buffer that rarely needs
/// more than one. An inaccessible page follows them, so that an overrun ends the process instead of
/// corrupting other memory.
inline ZeroedPages MapZeroedPages(size_t size) {
  const size_t guarded = size + static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  void* const pages = ::mmap(nullptr, guarded, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (pages == MAP_FAILED) return nullptr;
  ZeroedPages zeroed(static_cast<uint8_t*>(pages), UnmapPages{guarded});
  if (::mprotect(pages, size, PROT_READ | PROT_WRITE) != 0) zeroed.reset();
  return zeroed;
}

}  // namespace zeb::util
