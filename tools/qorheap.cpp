#include "qorheap.h"

#include <malloc.h>

#include <cstddef>

// Present only when a sanitizer's allocator replaces malloc: its own count is
// then the one that means something, since the C library's is never fed.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace qorheap {

bool inUseBytes(std::uint64_t& bytes) {
  if (__sanitizer_get_current_allocated_bytes != nullptr) {
    bytes = __sanitizer_get_current_allocated_bytes();
    return true;
  }
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 33))
  // Blocks in the arenas, and the large ones the C library maps by themselves.
  const struct mallinfo2 info = mallinfo2();
  bytes = info.uordblks + info.hblkhd;
  return true;
#else
  return false;
#endif
}

}  // namespace qorheap
