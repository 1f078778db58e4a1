// Tests that run a case in a forked child and read back what it wrote to a pipe.
#pragma once

#include <string>
#include <sys/types.h>

namespace zotest {

// Reads `fd` to its end, closes it, waits for `pid` and stores its wait status in
// *status. Returns everything the child wrote.
std::string collectChildReport(int fd, pid_t pid, int* status);

// Ends a forked child at once, like _exit(code), after writing out the coverage
// counters when the build counts coverage (_exit skips the handler that would).
[[noreturn]] void exitChild(int code);

}  // namespace zotest
