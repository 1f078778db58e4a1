// Failure-injection seam of the string buffers, for tests only.
//
// Every StringRep buffer is allocated, sized, coloured and freed through the
// allocator returned by Utils::StringTesting::bufferAllocator(): the process
// allocator, unless a test installed its own with setBufferAllocator(). A test that
// installs one must release every string it made under it before restoring the
// process allocator (pass null), since each block goes back to its own allocator.
#pragma once

#include "utils/allocator.h"
#include "utils/export.h"

namespace Utils {
namespace StringTesting {

// Routes string buffers to `a` (null: back to Allocator::theAllocator()); returns the
// allocator installed before (null when it was the process allocator).
ZO_TEST_API Allocator* setBufferAllocator(Allocator* a);

}  // namespace StringTesting
}  // namespace Utils
