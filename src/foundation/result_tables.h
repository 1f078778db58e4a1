// Internal: the result tables' unload step, called by the library's load/unload
// sequence (src/library/startup.cpp), and their verifier.
#pragma once

#include "utils/export.h"

namespace Utils {
namespace detail {

// Purges the suppressed-code list and frees every node of the last-error table,
// leaving both empty and usable.
ZO_TEST_API void releaseResultTables();  // exported for the library's tests

// Checks the last-error table, the suppressed list, the text table, the listener
// list and the chain of text buffers; null when sound, else what is wrong. Takes
// the tables' lock: not for a thread that holds it. Exported for the library's tests.
ZO_TEST_API char const* verifyResultTables();

}  // namespace detail
}  // namespace Utils
