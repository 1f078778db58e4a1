// Internal: the unload step of the log hub's process-wide state.
#pragma once

namespace Utils {
namespace detail {

// Drops the reference Log::theDefaultLogger_ holds and leaves it empty (the sink is
// deleted when no class holds it any more).
void dropDefaultLogger();

}  // namespace detail
}  // namespace Utils
