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
    // Cleared however the raise ends: a listener's exception passes through, and
    // the thread's next exhaustion must still be raised.
    struct Raising {
        Raising() { tRaisingOutOfMemory = true; }
        ~Raising() { tRaisingOutOfMemory = false; }
    } raising;
    raiseError(kResultOutOfMemory);
}

}  // namespace detail
}  // namespace Utils
