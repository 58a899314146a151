// Owner of a system event that stays set until the owner is destroyed.
#pragma once

#include <atomic>

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
    [[nodiscard]] bool IsSet() const { return m_isSet; }
    /// Becomes true with the event, and lasts as long.
    [[nodiscard]] const std::atomic<bool> &Flag() const { return m_isSet; }
    /// @param timeoutMs  real milliseconds, or INFINITE.
    bool Wait(DWORD timeoutMs) const;
    /// The same until either is set.
    /// @return whether this one is.
    bool WaitUnless(const Event &other, DWORD timeoutMs) const;

private:
    HANDLE m_event;
    std::atomic<bool> m_isSet{false};
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
    m_isSet = true;
    SetEvent(m_event);
}

inline bool Event::WaitUnless(const Event &other, DWORD timeoutMs) const {
    const InsideSimulator inside;
    const HANDLE both[] = {m_event, other.m_event};
    return WaitForMultipleObjects(2, both, FALSE, timeoutMs) == WAIT_OBJECT_0;
}

inline bool Event::Wait(DWORD timeoutMs) const {
    const InsideSimulator inside;
    return WaitForSingleObject(m_event, timeoutMs) == WAIT_OBJECT_0;
}

}  // namespace Simulator
