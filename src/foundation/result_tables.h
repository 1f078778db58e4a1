// Internal: the unload step of the result tables, called by the library's
// load/unload sequence (src/library/startup.cpp).
#pragma once

#include "utils/export.h"

namespace Utils {
namespace detail {

// Purges the suppressed-code list and frees every node of the last-error table,
// leaving both empty and usable.
ZO_TEST_API void releaseResultTables();  // exported for the library's tests

}  // namespace detail
}  // namespace Utils
