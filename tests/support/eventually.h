// Waiting in tests for something another thread must make happen.
#pragma once

#include <chrono>
#include <thread>

namespace zotest {

// Upper bound for something that must happen.
constexpr std::chrono::seconds kPatience{5};

// Polls `cond` every millisecond until it holds (true) or kPatience has passed (false).
template <class Cond>
bool eventually(Cond cond) {
    auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!cond()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace zotest
