// Owner of an event of the system that stays set until the owner ends.
#pragma once

#include <windows.h>

#include "CallScope.h"

namespace Simulator {

class Event {
public:
    Event();
    ~Event();
    Event(const Event &) = delete;
    Event &operator=(const Event &) = delete;

    void Set();
    [[nodiscard]] bool IsSet() const { return Wait(0); }
    /// @param timeoutMs  real milliseconds, or INFINITE.
    bool Wait(DWORD timeoutMs) const;

private:
    HANDLE m_event;
};

inline Event::Event() : m_event(nullptr) {
    const InsideSimulator inside;
    m_event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
}

inline Event::~Event() {
    const InsideSimulator inside;
    CloseHandle(m_event);
}

inline void Event::Set() {
    SetEvent(m_event);
}

inline bool Event::Wait(DWORD timeoutMs) const {
    const InsideSimulator inside;
    return WaitForSingleObject(m_event, timeoutMs) == WAIT_OBJECT_0;
}

}  // namespace Simulator
