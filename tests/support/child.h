// Tests that run a case in a forked child or another program and read back what
// it wrote.
#pragma once

#include <string>
#include <sys/types.h>

namespace zotest {

// Reads `fd` to its end, closes it, waits for `pid` and stores its wait status in
// *status. Returns everything the child wrote.
std::string collectChildReport(int fd, pid_t pid, int* status);

// Runs `command` through the shell and returns what it printed on standard output
// and standard error (append 2>&1 to the command for the latter); "popen failed"
// when no shell could be started.
std::string runCommand(std::string const& command);

// Ends a forked child at once, like _exit(code), after writing out the coverage
// counters when the build counts coverage (_exit skips the handler that would).
[[noreturn]] void exitChild(int code);

}  // namespace zotest
