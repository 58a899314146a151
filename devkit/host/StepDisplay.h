// Shows the steps of an installation or a removal while it runs.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "DriverRuns.h"

/// A line for an event.
std::string NewsLine(const DriverNews &news);

/// The current state in one line: how long the run has taken, and the innermost step with its time and its limit.
/// @param now    seconds since 1970.
/// @param width  longer text is cut off.
std::string StatusText(const DriverRun &run, double now, std::size_t width);

/// On a terminal one line that changes in place and one for the outcome, otherwise a line for the beginning and the end
/// of each step.
class StepDisplay {
public:
    ~StepDisplay() { End(); }

    /// @param runs  outlives the display.
    void Begin(DriverRuns &runs);
    /// Shows nothing from now on.
    void End();

private:
    void Update(const DriverRuns &runs);
    void ShowCurrent(const DriverRuns &runs);
    void ShowNothing();

    std::thread m_updater;
    std::mutex m_lock;  ///< That it should end.
    std::condition_variable m_wake;
    bool m_ends = false;
    /// A run that has ended is not shown again. A killed thread may keep this locked; no wait is unlimited.
    std::timed_mutex m_showing;
};
