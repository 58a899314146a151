// Shows the steps of an installation or a removal while it is under way.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "DriverRuns.h"

/// A line for what has happened.
std::string NewsLine(const DriverNews &news);

/// What is under way, in one line: how long it has taken, and the innermost step with its time and its limit.
/// @param now    seconds since 1970.
/// @param width  the text is cut off behind so many characters.
std::string StatusText(const DriverRun &run, double now, std::size_t width);

/// On a terminal one line that changes in place and one for the outcome, else a line for the beginning and the end of
/// each step.
class StepDisplay {
public:
    ~StepDisplay() { End(); }

    /// @param runs  outlives the display.
    void Begin(DriverRuns &runs);
    /// Nothing is shown any more.
    void End();

private:
    void Update(const DriverRuns &runs);
    void ShowCurrent(const DriverRuns &runs);
    void ShowNothing();

    std::thread m_updater;
    std::mutex m_lock;  ///< Of the end.
    std::condition_variable m_wake;
    bool m_ends = false;
    /// A run that has ended is not shown again. A thread that is killed may keep this; nobody waits for ever.
    std::timed_mutex m_showing;
};
