// How many bytes qorhost's heap allocations hold right now, as the allocator
// in use counts them: the figure an operator watches for a slow leak, apart
// from the resident size, which also holds what the allocator keeps cached.
// Used by the metrics of qorhost's control endpoint.
#ifndef QOR_TOOLS_QORHEAP_H
#define QOR_TOOLS_QORHEAP_H

#include <cstdint>

namespace qorheap {

// The bytes in use, blocks and their bookkeeping; false when the allocator
// gives no such count.
bool inUseBytes(std::uint64_t& bytes);

}  // namespace qorheap

#endif  // QOR_TOOLS_QORHEAP_H
