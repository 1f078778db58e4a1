#include "knobs.h"

#if defined(__has_include)
#if __has_include(<valgrind/valgrind.h>)
#include <valgrind/valgrind.h>
#define ZOTEST_VALGRIND 1
#endif
#endif

namespace zotest {

bool underValgrind() {
#ifdef ZOTEST_VALGRIND
    return RUNNING_ON_VALGRIND != 0;
#else
    return false;
#endif
}

}  // namespace zotest
