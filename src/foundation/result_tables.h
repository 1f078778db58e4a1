// Internal: the unload step of the result tables, called by the library's
// load/unload sequence (src/log/startup.cpp).
#pragma once

namespace Utils {
namespace detail {

// Purges the suppressed-code list and frees every node of the last-error table,
// leaving both empty and usable.
void releaseResultTables();

}  // namespace detail
}  // namespace Utils
