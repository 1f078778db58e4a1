// The re-entry guards' storage and the one raise that needs a guard of its own
// (see reentry.h for the cycle they cut).
#include "library/reentry.h"

#include "utils/result.h"

namespace Utils {
namespace detail {

namespace {
__thread int tLockDepth __attribute__((tls_model("initial-exec")));
__thread bool tLoggingError __attribute__((tls_model("initial-exec")));
__thread bool tRaisingOutOfMemory __attribute__((tls_model("initial-exec")));
}  // namespace

__thread unsigned int tInside __attribute__((tls_model("initial-exec")));
__thread bool tPendingOutOfMemory __attribute__((tls_model("initial-exec")));

int& heldLockDepth() { return tLockDepth; }

bool loggingError() { return tLoggingError; }
LoggingError::LoggingError() { tLoggingError = true; }
LoggingError::~LoggingError() { tLoggingError = false; }

void raiseOutOfMemory() {
    if (tRaisingOutOfMemory) return;  // exhausted again while raising: once is enough
    tRaisingOutOfMemory = true;
    raiseError(kResultOutOfMemory);
    tRaisingOutOfMemory = false;
}

}  // namespace detail
}  // namespace Utils
