#include "StartedThreads.h"

#include <utility>
#include <vector>

#include "WindowsFunctions.h"

using Simulator::InsideSimulator;

void LetEndingThreadsEnd(Simulator::Simulation &simulation) {
    simulation.Functions().Put<Simulator::System::WaitForSingleObject>(
        [&faults = simulation.GetFaults()](const auto &next, HANDLE handle, DWORD ms) {
            DWORD result = next(handle, ms);
            const DWORD thread = ms == 0 && result == WAIT_TIMEOUT ? GetThreadId(handle) : 0;
            while (thread != 0 && result == WAIT_TIMEOUT && !faults.Hangs(thread))
                result = WaitForSingleObject(handle, 1);
            return result;
        },
        Simulator::Depth::Watch);
}

/// Duplicates: the module may close its own at any time.
class StartedThreads::Handles {
public:
    Handles() = default;
    ~Handles() { (void)AwaitEnds(0); }
    Handles(const Handles &) = delete;
    Handles &operator=(const Handles &) = delete;

    void Add(HANDLE thread) {
        HANDLE copy = nullptr;
        if (!DuplicateHandle(GetCurrentProcess(), thread, GetCurrentProcess(), &copy, SYNCHRONIZE, FALSE, 0))
            return;
        const Simulator::LockGuard guard(m_lock);
        m_threads.push_back(copy);
    }

    bool AwaitEnds(DWORD realMs) {
        const InsideSimulator inside;
        bool allEnded = true;
        for (const HANDLE thread : Take()) {
            allEnded = WaitForSingleObject(thread, realMs) == WAIT_OBJECT_0 && allEnded;
            CloseHandle(thread);
        }
        return allEnded;
    }

private:
    std::vector<HANDLE> Take() {
        const Simulator::LockGuard guard(m_lock);
        return std::exchange(m_threads, {});
    }

    Simulator::Lock m_lock;
    std::vector<HANDLE> m_threads;
};

StartedThreads::StartedThreads(Simulator::Simulation &simulation) : m_handles(std::make_shared<Handles>()) {
    simulation.Functions().Put<Simulator::System::_beginthreadex>(
        [handles = m_handles](const auto &next, auto... arguments) {
            const auto thread = next(arguments...);
            if (thread != 0)
                handles->Add(reinterpret_cast<HANDLE>(thread));
            return thread;
        },
        Simulator::Depth::Watch);
}

StartedThreads::~StartedThreads() = default;

bool StartedThreads::AwaitEnds(DWORD realMs) {
    return m_handles->AwaitEnds(realMs);
}
