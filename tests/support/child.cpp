#include "child.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace zotest {

std::string collectChildReport(int fd, pid_t pid, int* status) {
    std::string report;
    char chunk[512];
    ssize_t n;
    while ((n = read(fd, chunk, sizeof chunk)) > 0) report.append(chunk, static_cast<size_t>(n));
    close(fd);
    *status = 0;
    waitpid(pid, status, 0);
    return report;
}

std::string runCommand(std::string const& command) {
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return "popen failed";
    std::string out;
    char buffer[4096];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
    pclose(pipe);
    return out;
}

#ifdef ZOUTILS_COVERAGE
extern "C" void __gcov_dump(void);
#endif

void exitChild(int code) {
#ifdef ZOUTILS_COVERAGE
    __gcov_dump();
#endif
    _exit(code);
}

}  // namespace zotest
