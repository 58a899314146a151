// A thread of the agent that hangs while it logs a line.
#pragma once

#include <string>

#include "Event.h"
#include "Lock.h"
#include "thread_log_control.h"

/// Hangs the thread that logs the line, within the call that logs it. For threads that begin afterwards; one at a time.
class HungLine {
public:
    /// @param beginning  of the line.
    explicit HungLine(const std::string &beginning) {
        Listener::Instance().Watch(this, beginning);
        VtaCore::Control::SetThreadListener(&Listener::Instance());
    }
    ~HungLine() {
        Release();
        VtaCore::Control::SetThreadListener(nullptr);
        Listener::Instance().Watch(nullptr, {});
    }
    HungLine(const HungLine &) = delete;
    HungLine &operator=(const HungLine &) = delete;

    /// @param timeoutMs  real milliseconds.
    [[nodiscard]] bool WaitUntilHit(DWORD timeoutMs) const { return m_hit.Wait(timeoutMs); }
    void Release() { m_released.Set(); }

private:
    /// The library may still call it when the test has ended.
    class Listener : public VtaCore::Control::ThreadListener {
    public:
        static Listener &Instance() {
            static Listener &listener = *new Listener;
            return listener;
        }
        void Watch(HungLine *line, const std::string &beginning) {
            const Simulator::LockGuard guard(m_lock);
            m_line = line;
            m_beginning = beginning;
        }
        void OnThreadBegin(DWORD, const char *) override {}
        void OnThreadEnd(DWORD, bool) override {}
        void OnThreadLine(const VtaCore::Control::ThreadLine &line) override {
            HungLine *const hung = Find(line.text.utf8_string());
            if (hung == nullptr)
                return;
            hung->m_hit.Set();
            (void)hung->m_released.Wait(INFINITE);
        }

    private:
        HungLine *Find(const std::string &text) {
            const Simulator::InsideSimulator inside;
            const Simulator::LockGuard guard(m_lock);
            const std::size_t begin = text.find_first_not_of(' ');
            return m_line != nullptr && begin != text.npos && text.compare(begin, m_beginning.size(), m_beginning) == 0
                       ? m_line
                       : nullptr;
        }

        Simulator::Lock m_lock;
        HungLine *m_line = nullptr;
        std::string m_beginning;
    };

    Simulator::Event m_hit;
    Simulator::Event m_released;
};
