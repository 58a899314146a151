#include "StartedThreads.h"

#include <algorithm>
#include <atomic>
#include <vector>

#include "Patience.h"
#include "WindowsFunctions.h"

using Simulator::InsideSimulator;
using Simulator::LockGuard;

namespace {

/// Between two polls of a thread without a step by its watcher.
constexpr DWORD kPollMs = 100;
/// Real milliseconds; a thread that takes longer is not about to end.
constexpr DWORD kLastInstructionsMs = 10'000;

/// How much of what the module has queued is not done.
std::atomic<std::ptrdiff_t> queuedWork{0};

struct Work {
    LPTHREAD_START_ROUTINE function;
    void *context;
};

Work TakeWork(void *address) {
    const InsideSimulator inside;
    const std::unique_ptr<Work> work(static_cast<Work *>(address));
    return *work;
}

DWORD WINAPI DoWork(void *address) {
    const Work work = TakeWork(address);
    const DWORD result = work.function(work.context);
    --queuedWork;
    return result;
}

/// Not in the journal and the fault plans, since whether something is queued depends on the system's load.
BOOL WINAPI QueueWork(LPTHREAD_START_ROUTINE function, void *context, ULONG flags) {
    static const auto real = reinterpret_cast<decltype(&::QueueUserWorkItem)>(
        reinterpret_cast<void *>(Simulator::FindRealFunction("KERNEL32.dll", "QueueUserWorkItem")));
    const InsideSimulator inside;
    auto work = std::make_unique<Work>(Work{function, context});
    ++queuedWork;
    if (!real(&DoWork, work.get(), flags)) {
        --queuedWork;
        return FALSE;
    }
    (void)work.release();
    return TRUE;
}

bool HasEnded(HANDLE thread) {
    const InsideSimulator inside;
    return WaitForSingleObject(thread, 0) == WAIT_OBJECT_0;
}

}  // namespace

/// Duplicates of their handles: the module may close its own at any time.
class StartedThreads::Threads {
public:
    Threads() = default;
    ~Threads() {
        Forget([](const Thread &) { return true; });
    }
    Threads(const Threads &) = delete;
    Threads &operator=(const Threads &) = delete;

    void Add(HANDLE thread) {
        Forget([](const Thread &started) { return HasEnded(started.handle); });
        Thread started{GetThreadId(thread), GetCurrentThreadId()};
        if (!DuplicateHandle(GetCurrentProcess(), thread, GetCurrentProcess(), &started.handle, SYNCHRONIZE, FALSE, 0))
            return;
        const LockGuard guard(m_lock);
        m_threads.push_back(started);
    }

    /// @return the thread that the calling thread started last, if this is not its first sleep since; otherwise 0.
    DWORD SleepsFor() {
        const LockGuard guard(m_lock);
        const auto last = std::find_if(m_threads.rbegin(), m_threads.rend(),
                                       [](const Thread &started) { return started.maker == GetCurrentThreadId(); });
        return last == m_threads.rend() || last->sleeps++ == 0 ? 0 : last->id;
    }

    std::ptrdiff_t Living() {
        const LockGuard guard(m_lock);
        return std::count_if(m_threads.begin(), m_threads.end(),
                             [](const Thread &started) { return !HasEnded(started.handle); });
    }

    bool HasThreadEnded(DWORD id) {
        const LockGuard guard(m_lock);
        return std::all_of(m_threads.begin(), m_threads.end(),
                           [id](const Thread &started) { return started.id != id || HasEnded(started.handle); });
    }

private:
    struct Thread {
        DWORD id;
        DWORD maker;
        HANDLE handle = nullptr;
        unsigned sleeps = 0;
    };

    template <class Condition>
    void Forget(Condition condition) {
        const InsideSimulator inside;
        const LockGuard guard(m_lock);
        std::erase_if(m_threads, [&condition](const Thread &started) {
            const bool goes = condition(started);
            if (goes)
                CloseHandle(started.handle);
            return goes;
        });
    }

    Simulator::Lock m_lock;
    std::vector<Thread> m_threads;
};

StartedThreads::StartedThreads(Simulator::Simulation &simulation) : m_threads(std::make_shared<Threads>()) {
    const auto awaitEnd = [threads = m_threads, &faults = simulation.GetFaults()](DWORD id) {
        (void)Await(kLastInstructionsMs, [&] { return threads->HasThreadEnded(id) || faults.Hangs(id); });
        return threads->HasThreadEnded(id);
    };
    Simulator::FunctionSet &functions = simulation.Functions();
    functions.Put<Simulator::System::_beginthreadex>(
        [threads = m_threads](const auto &next, auto... arguments) {
            const auto thread = next(arguments...);
            if (thread != 0)
                threads->Add(reinterpret_cast<HANDLE>(thread));
            return thread;
        },
        Simulator::Depth::Watch);
    functions.Add({"KERNEL32.dll", "QueueUserWorkItem", reinterpret_cast<void *>(&QueueWork)});
    functions.Put<Simulator::System::WaitForSingleObject>(
        [awaitEnd](const auto &next, HANDLE handle, DWORD ms) {
            const DWORD result = next(handle, ms);
            const DWORD thread = ms == 0 && result == WAIT_TIMEOUT ? GetThreadId(handle) : 0;
            return thread != 0 && awaitEnd(thread) ? WAIT_OBJECT_0 : result;
        },
        Simulator::Depth::Watch);
    functions.Put<Simulator::System::Sleep>(
        [threads = m_threads, &faults = simulation.GetFaults()](const auto &next, DWORD ms) {
            const DWORD thread = ms == kPollMs ? threads->SleepsFor() : 0;
            if (thread == 0 || faults.Hangs(thread))
                next(ms);
            else
                Sleep(1);  // not until its end, for which it may need a lock that the sleeper holds
        },
        Simulator::Depth::Watch);
}

StartedThreads::~StartedThreads() = default;

bool StartedThreads::AwaitEnds(DWORD realMs, std::ptrdiff_t living) {
    return Await(realMs, [&] { return m_threads->Living() <= living && queuedWork <= living; });
}
