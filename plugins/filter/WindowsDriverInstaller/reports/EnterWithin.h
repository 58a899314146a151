// Enters a critical section with a time limit.
#pragma once

#include <wx/thread.h>

/// Leaves an entered section at the end of the scope.
class LeaveAtEnd {
public:
    explicit LeaveAtEnd(wxCriticalSection &toLeave) : section(toLeave) {}
    ~LeaveAtEnd() { section.Leave(); }
    LeaveAtEnd(const LeaveAtEnd &) = delete;
    LeaveAtEnd &operator=(const LeaveAtEnd &) = delete;

private:
    wxCriticalSection &section;
};

/// @return false if it could not be entered in time; otherwise the caller has to leave it.
inline bool EnterWithin(wxCriticalSection &section, int milliseconds) {
    constexpr int pauseMs = 50;
    for (; !section.TryEnter(); milliseconds -= pauseMs) {
        if (milliseconds <= 0)
            return false;
        wxThread::Sleep(pauseMs);
    }
    return true;
}
