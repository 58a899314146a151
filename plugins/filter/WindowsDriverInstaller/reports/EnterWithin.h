// A critical section that must not hold up the one who enters it for ever.
#pragma once

#include <wx/thread.h>

/// Leaves a section that was entered.
class LeaveAtEnd {
public:
    explicit LeaveAtEnd(wxCriticalSection &toLeave) : section(toLeave) {}
    ~LeaveAtEnd() { section.Leave(); }
    LeaveAtEnd(const LeaveAtEnd &) = delete;
    LeaveAtEnd &operator=(const LeaveAtEnd &) = delete;

private:
    wxCriticalSection &section;
};

/// @return false if it could not be entered within the time; else it is to be left.
inline bool EnterWithin(wxCriticalSection &section, int milliseconds) {
    constexpr int pauseMs = 50;
    for (; !section.TryEnter(); milliseconds -= pauseMs) {
        if (milliseconds <= 0)
            return false;
        wxThread::Sleep(pauseMs);
    }
    return true;
}
