// Waiting in real time for what other threads do.
#pragma once

#include <chrono>

#include "CallScope.h"

/// Whoever waits longer, in real milliseconds, fails the test. It is long enough for a machine that is busy otherwise.
inline constexpr DWORD kPatienceMs = 60'000;

/// Asks again every millisecond.
template <class Condition>
bool Await(DWORD realMs, Condition condition) {
    const Simulator::InsideSimulator inside;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(realMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        Sleep(1);
    }
    return true;
}
