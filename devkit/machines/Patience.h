// Real-time waits for what other threads do.
#pragma once

#include <chrono>

#include "CallScope.h"

/// A longer wait, in real milliseconds, fails the test. Long enough for a busy machine.
inline constexpr DWORD kPatienceMs = 60'000;

/// Polls every millisecond.
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
