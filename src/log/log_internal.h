// Internal: the unload step of the log hub's process-wide state.
#pragma once

#include "utils/export.h"

namespace Utils {
namespace detail {

// Drops the reference Log::theDefaultLogger_ holds and leaves it empty (the sink is
// deleted when no class holds it any more).
ZO_TEST_API void dropDefaultLogger();  // exported for the library's tests

}  // namespace detail
}  // namespace Utils
