// Selects the places where a test hangs calls, and reports those that were tried.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// For one test.
class HangReport {
public:
    /// Whether FC_HANG_AT names the place, or is empty.
    [[nodiscard]] static bool IsWanted(std::size_t index);
    /// Whether FC_HANG_AT names a place.
    [[nodiscard]] static bool IsForOnePlace();
    /// How to try the place again.
    [[nodiscard]] static std::string HowToRepeat(std::size_t index);

    /// @param returnedAfterMs  real milliseconds from the deadline to the script's answer.
    void Add(double returnedAfterMs) { m_returnedAfterMs.push_back(returnedAfterMs); }
    /// A place where the answer does not depend on a limit.
    void AddWithoutTime() { ++m_withoutTime; }
    /// Prints a line, and fails the test if nothing was added. @param what  such as "calls, each noticed in time".
    void Tell(std::size_t places, const std::string &what);

private:
    std::vector<double> m_returnedAfterMs;
    std::size_t m_withoutTime = 0;
};
