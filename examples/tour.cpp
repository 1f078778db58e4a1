// The zoutils tour: a short walk through each family of the library.
// Each family has its own section in examples/tour_<family>.cpp.
#include <cstdio>

#include "tour.h"

int main() {
    std::printf("zoutils tour\n============\n");
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
