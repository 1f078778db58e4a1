// Load and unload of the library's process-wide state: the one unit above results
// and logging that knows the order in which both are set up and torn down.
//
// At load, constant initialisation has already left the default-logger slot, the
// last-error table, the suppressed-code list, the version slot and every table
// lock empty and usable (no constructor runs for them); the one dynamic
// initialiser then builds the hub (reading the configuration and installing the
// default sink, which makes the first allocation and with it the process
// allocator) and names the category the page allocator logs to.
//
// At unload, in this order: the default logger's reference is dropped, the
// suppressed-code list is purged and the last-error table's nodes are freed. The
// hub, the result texts and the listener list live until the process ends.
//
// theDefaultLogger_ is defined in this file, before the unload object, so that its
// own destructor is registered first and runs after the unload step has emptied it.
#include "foundation/result_tables.h"
#include "log/hub_internal.h"
#include "utils/log.h"

namespace Utils {

CountedRef<Logger> Log::theDefaultLogger_;

unsigned int allocLogger = Log::theLog()->getCategory("allocator");

namespace {

struct Unload {
    ~Unload() {
        detail::dropDefaultLogger();
        detail::releaseResultTables();
    }
} gUnload;

}  // namespace

}  // namespace Utils
