// Internal: the two entry points of the process allocator that the global
// operators (operators.cpp) call. Both build the allocator on first use.
#pragma once

#include <cstddef>

namespace Utils {

// A block of at least `size` bytes in the calling thread's default colour, aligned
// to 16 bytes; null when memory is exhausted (0x80000002 has then been raised).
void* processAlloc(std::size_t size);
// Releases a block from processAlloc; null is ignored.
void processFree(void* p);

}  // namespace Utils
