// The agent's thread. A thread may be killed at any point, so its state is kept in events and atomics, which stay
// usable then, and not behind locks.
#include <algorithm>
#include <array>
#include <atomic>

#include "Handle.h"
#include "LiveObject.h"
#include "ThreadLog.h"
#include "vta_core.h"

namespace VtaCore {
namespace {

constexpr unsigned kMaxPriority = 100;
constexpr int kProcessorBits = 64;
/// Only a few instructions lie between the end of the body and the end of the thread.
constexpr DWORD kThreadEndWaitMs = 5'000;

enum class Wake { Exit, Interrupt, Awaken, Timeout };

}  // namespace

struct CRunnable::Impl {
    Impl(bool isSuspended, int boundTo) : suspended(isSuspended), processor(boundTo) {}

    Wake Wait(DWORD waitMs) const {
        const std::array<HANDLE, 3> events{exit.get(), interrupted.get(), awakened.get()};
        switch (WaitForMultipleObjects(static_cast<DWORD>(events.size()), events.data(), FALSE, waitMs)) {
            case WAIT_OBJECT_0:
                return Wake::Exit;
            case WAIT_OBJECT_0 + 1:
                return Wake::Interrupt;
            case WAIT_OBJECT_0 + 2:
                return Wake::Awaken;
            default:
                return Wake::Timeout;
        }
    }

    LiveObject live;
    const bool suspended;
    const int processor;
    std::atomic<bool> started{false};
    std::atomic<bool> running{false};
    Handle exit = NewEvent(Reset::Manual);
    Handle interrupted = NewEvent(Reset::Automatic);
    Handle awakened = NewEvent(Reset::Automatic);
};

CRunnable::CRunnable(bool suspended, int processor, bool detached)
    : wxThread(detached ? wxTHREAD_DETACHED : wxTHREAD_JOINABLE), m_impl(new Impl(suspended, processor)) {}

CRunnable::~CRunnable() {
    // An owner that deletes the object as soon as isRunning is false must not destroy it during wxThread's last steps.
    // A detached object is deleted by its own thread, which cannot wait for itself; a killed thread no longer has a
    // handle.
    const HANDLE thread = MSWGetHandle();
    if (!IsDetached() && m_impl->started && !m_impl->running && thread != nullptr)
        WaitForSingleObject(thread, kThreadEndWaitMs);
    delete m_impl;
}

bool CRunnable::start(unsigned priority, bool create, unsigned stackSize) {
    if (m_impl->started.exchange(true))
        return false;
    if (create && Create(stackSize) != wxTHREAD_NO_ERROR) {
        m_impl->started = false;
        return false;
    }
    SetPriority(std::min(priority, kMaxPriority));
    m_impl->running = true;
    // A detached object may be gone when this returns true: do not touch it afterwards.
    if (wxThread::Run() == wxTHREAD_NO_ERROR)
        return true;
    m_impl->running = false;
    m_impl->started = false;
    return false;
}

bool CRunnable::isRunning() const {
    return m_impl->running;
}

void *CRunnable::Entry() {
    SetName(wxString::FromUTF8(Name()));
    if (m_impl->processor >= 0 && m_impl->processor < kProcessorBits)
        SetThreadAffinityMask(GetCurrentThread(), DWORD_PTR{1} << m_impl->processor);
    if (m_impl->suspended) {
        Wake wake = Wake::Interrupt;
        while (wake == Wake::Interrupt)
            wake = m_impl->Wait(INFINITE);
        if (wake != Wake::Awaken)
            return nullptr;
    }
    ThreadLog::Begin(Name());
    Run();
    return nullptr;
}

void CRunnable::OnDelete() {
    SetEvent(m_impl->exit.get());
}

void CRunnable::OnKill() {
    ThreadLog::End(GetId(), true);
    m_impl->running = false;
}

void CRunnable::OnExit() {
    ThreadLog::End(GetCurrentThreadId(), false);
    m_impl->running = false;
}

void CRunnable::Delete() {
    requestExit();
    wxThread::Delete();
}

void CRunnable::Awaken() {
    SetEvent(m_impl->awakened.get());
}

void CRunnable::interrupt() {
    SetEvent(m_impl->interrupted.get());
}

void CRunnable::requestExit() {
    SetEvent(m_impl->exit.get());
}

bool CRunnable::TestDestroy() {
    return WaitForSingleObject(m_impl->exit.get(), 0) == WAIT_OBJECT_0 || wxThread::TestDestroy();
}

bool CRunnable::TestDestroy(unsigned waitMs, bool *interrupted) {
    const Wake wake = m_impl->Wait(waitMs);
    if (interrupted != nullptr)
        *interrupted = wake == Wake::Interrupt;
    return TestDestroy();
}

}  // namespace VtaCore
