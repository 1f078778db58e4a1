// The zoutils tour: a short walk through each family of the library.
// Each family has its own section in examples/tour_<family>.cpp.
#include <cstdio>

#include "tour.h"
#include "utils/allocator.h"

int main() {
    std::printf("zoutils tour\n============\n");
    // Under a memory limit below the system layer's granule (ZOSYS_MEM_LIMIT) the
    // library has no memory at all: every object of the tour would be missing.
    void* probe = Utils::Allocator::theAllocator()->alloc(64);
    if (!probe) {
        std::printf("no memory at all (is ZOSYS_MEM_LIMIT below 1 MiB?): nothing to show\n");
        return 1;
    }
    Utils::Allocator::theAllocator()->free(probe);
    tourSystemLayer();
    tourObjects();
    tourContainers();
    tourSync();
    tourMemory();
    tourPageAlloc();
    tourLog();
    tourStrings();
    std::printf("\nEnd of the tour.\n");
    return 0;
}
