// Capping a test process's address space at what it already maps, so that the next
// mapping (a region, a table page, the C heap's growth) is refused by the kernel.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

// The sanitizers' allocators and shadow reservations cannot live under such a cap.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SKIP_UNDER_SANITIZER_RESERVATIONS() \
    GTEST_SKIP() << "the sanitizer's allocator and reservations defeat an address-space cap"
#else
#define SKIP_UNDER_SANITIZER_RESERVATIONS() (void)0
#endif

namespace zotest {

// Bytes the process maps now (the size field of /proc/self/statm); 0 when unknown.
inline unsigned long mappedBytes() {
    char buffer[128] = {};
    int fd = open("/proc/self/statm", O_RDONLY);
    if (fd < 0) return 0;
    ssize_t n = read(fd, buffer, sizeof buffer - 1);
    close(fd);
    if (n <= 0) return 0;
    return std::strtoul(buffer, nullptr, 10) * static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
}

}  // namespace zotest
