// The interface defaults of Allocator, for allocators without colours.
#include "utils/allocator.h"

#include "utils/result.h"

namespace Utils {

void* Allocator::alloc(unsigned long size, unsigned int) { return alloc(size); }
unsigned int Allocator::color(void*) const { return 0; }
unsigned int Allocator::setColor(void*, unsigned int) { return kResultNotSupported; }
bool Allocator::valid(void*) const { return false; }
unsigned int Allocator::setDefaultColor(unsigned int, unsigned int*) { return kResultNotSupported; }
unsigned int Allocator::defaultColor() const { return 0; }
unsigned long Allocator::allocatedColorMemory(unsigned int) const { return 0; }
unsigned long Allocator::freeColorMemory(unsigned int) const { return 0; }
void Allocator::adjustColorMemory(unsigned int, int) {}

}  // namespace Utils
