#include "Turns.h"

#include <utility>

#include "CallScope.h"
#include "UniqueHandle.h"

namespace Simulator {

namespace {

/// Real milliseconds; a thread that leaves has only a few instructions left. Limited since the loader's lock, which it
/// needs for its end, may be held by the thread that waits for it.
constexpr DWORD kLastInstructionsMs = 60'000;

UniqueHandle Copy(HANDLE thread) {
    HANDLE copy = nullptr;
    (void)DuplicateHandle(GetCurrentProcess(), thread, GetCurrentProcess(), &copy,
                          SYNCHRONIZE | THREAD_TERMINATE | THREAD_QUERY_INFORMATION, FALSE, 0);
    return UniqueHandle(copy);
}

}  // namespace

struct Turns::Thread {
    Thread(unsigned toNumber, HANDLE thread) : number(toNumber), id(GetThreadId(thread)), handle(Copy(thread)) {}

    /// A wait of no time would do, too, but under Wine it yields the processor, which is expensive on a busy machine. A
    /// thread must not end with STILL_ACTIVE (259) as its code.
    [[nodiscard]] bool HasEnded() const {
        DWORD code = STILL_ACTIVE;
        return id != GetCurrentThreadId() && GetExitCodeThread(handle.get(), &code) && code != STILL_ACTIVE;
    }
    [[nodiscard]] bool WantsProbe() const { return waits && hasProbe && !isProbed && (sign == nullptr || *sign); }
    [[nodiscard]] bool WantsTurn() const { return suspensions == 0 && (isNew || WantsProbe()); }
    [[nodiscard]] bool WaitsForTime() const { return suspensions == 0 && waits && until.has_value(); }

    const unsigned number;  ///< The youngest thread has the highest.
    const DWORD id;
    const UniqueHandle handle;
    const UniqueHandle isReady{CreateEventW(nullptr, TRUE, FALSE, nullptr)};  ///< For its first turn.
    const UniqueHandle turn{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    unsigned suspensions = 1;
    bool isNew = true;
    bool waits = false;
    bool hasProbe = false;
    bool isProbed = false;  ///< Since another thread has run.
    const std::atomic<bool> *sign = nullptr;
    bool isDue = false;
    std::optional<Interval> until;
};

Turns::~Turns() {
    End();
    const InsideSimulator inside;
    m_threads.clear();
}

void Turns::Begin(MoveTime moveTime) {
    const InsideSimulator inside;
    auto self = std::make_shared<Thread>(0, GetCurrentThread());
    self->isNew = false;
    self->suspensions = 0;
    const LockGuard guard(m_lock);
    m_moveTime = std::move(moveTime);
    m_threads = {{GetCurrentThreadId(), std::move(self)}};
    m_ended = false;
}

bool Turns::TakesPart() const {
    return !m_ended && Mine() != nullptr;
}

Turns::ThreadHandle Turns::Mine() const {
    const LockGuard guard(m_lock);
    const auto found = m_threads.find(GetCurrentThreadId());
    return found == m_threads.end() ? nullptr : found->second;
}

Turns::ThreadHandle Turns::Find(HANDLE thread) const {
    const LockGuard guard(m_lock);
    const auto found = m_threads.find(GetThreadId(thread));
    return found == m_threads.end() ? nullptr : found->second;
}

void Turns::Add(HANDLE thread) {
    const InsideSimulator inside;
    auto added = std::make_shared<Thread>(++m_added, thread);
    const LockGuard guard(m_lock);
    m_threads[GetThreadId(thread)] = std::move(added);
}

void Turns::NoteSuspended(HANDLE thread) {
    const InsideSimulator inside;
    if (const ThreadHandle noted = Find(thread))
        ++noted->suspensions;
}

void Turns::NoteResumed(HANDLE thread) {
    const InsideSimulator inside;
    const ThreadHandle noted = Find(thread);
    if (noted == nullptr || noted->suspensions == 0)
        return;
    --noted->suspensions;
    if (noted->suspensions > 0 || !noted->isNew)
        return;
    const HANDLE readyOrDead[] = {noted->isReady.get(), noted->handle.get()};
    (void)WaitForMultipleObjects(2, readyOrDead, FALSE, INFINITE);
}

void Turns::AwaitFirst() {
    const InsideSimulator inside;
    const ThreadHandle self = Mine();
    if (self == nullptr)
        return;
    AwaitTurn(self->isReady.get(), *self);
    self->isNew = false;
}

/// @param toSignal  is signalled by the call that waits: whoever it wakes finds this thread in its wait.
void Turns::AwaitTurn(HANDLE toSignal, const Thread &self) {
    (void)SignalObjectAndWait(toSignal, self.turn.get(), INFINITE, FALSE);
    const ThreadHandle leaving = std::exchange(m_leaving, nullptr);
    if (leaving != nullptr)
        (void)WaitForSingleObject(leaving->handle.get(), kLastInstructionsMs);
}

void Turns::Leave() {
    const InsideSimulator inside;
    const ThreadHandle self = Mine();
    if (m_ended || self == nullptr)
        return;
    {
        const LockGuard guard(m_lock);
        m_threads.erase(GetCurrentThreadId());
    }
    m_leaving = self;
    ProbeAllAgain();
    if (const ThreadHandle next = PickNext())
        SetEvent(next->turn.get());
}

bool Turns::Wait(std::optional<Interval> until, const Probe &probe, const std::atomic<bool> *sign) {
    const InsideSimulator inside;
    const ThreadHandle self = Mine();
    ProbeAllAgain();
    self->until = until;
    self->hasProbe = probe != nullptr;
    self->sign = sign;
    self->waits = true;
    bool isOver = false;
    while (!m_ended && !isOver) {
        const ThreadHandle next = PickNext();
        if (next != nullptr && next != self)
            AwaitTurn(next->turn.get(), *self);
        if (m_ended || std::exchange(self->isDue, false))
            break;
        self->isProbed = true;
        isOver = probe != nullptr && probe();
    }
    self->waits = false;
    return isOver;
}

void Turns::ForgetEnded() {
    const LockGuard guard(m_lock);
    std::erase_if(m_threads, [](const auto &thread) { return thread.second->HasEnded(); });
}

void Turns::KillOthers() {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    for (const auto &[id, thread] : m_threads)
        if (id != GetCurrentThreadId())
            KillThread(thread->handle.get());
    std::erase_if(m_threads, [](const auto &thread) { return thread.first != GetCurrentThreadId(); });
}

/// Another thread has run: a wait may be over by now.
void Turns::ProbeAllAgain() {
    const LockGuard guard(m_lock);
    for (const auto &[id, thread] : m_threads)
        thread->isProbed = false;
}

Turns::ThreadHandle Turns::YoungestThatWantsTurn() const {
    const LockGuard guard(m_lock);
    ThreadHandle youngest;
    for (const auto &[id, thread] : m_threads)
        if (thread->WantsTurn() && (youngest == nullptr || thread->number > youngest->number))
            youngest = thread;
    return youngest;
}

Turns::ThreadHandle Turns::FirstWhoseTimeComes() const {
    const LockGuard guard(m_lock);
    ThreadHandle first;
    for (const auto &[id, thread] : m_threads) {
        if (!thread->WaitsForTime())
            continue;
        const bool isEarlier = first == nullptr || *thread->until < *first->until ||
                               (*thread->until == *first->until && thread->number > first->number);
        if (isEarlier)
            first = thread;
    }
    return first;
}

/// Who gets the turn next; null if nobody wants it. Only the one that is picked is asked whether it is alive, since
/// each question is a call of the system.
Turns::ThreadHandle Turns::PickAlive() {
    for (;;) {
        ThreadHandle next = YoungestThatWantsTurn();
        const bool isDue = next == nullptr;
        if (isDue)
            next = FirstWhoseTimeComes();
        if (next == nullptr)
            return nullptr;
        if (next->HasEnded()) {
            ForgetEnded();
            continue;
        }
        if (isDue) {
            m_moveTime(*next->until);
            next->isDue = true;
        }
        return next;
    }
}

/// @return null when all threads have ended.
Turns::ThreadHandle Turns::PickNext() {
    for (; !m_ended; ProbeAllAgain()) {
        if (ThreadHandle next = PickAlive())
            return next;
        ForgetEnded();
        if (IsEmpty())
            return nullptr;
        Sleep(1);  // only somebody who takes no part can end a wait
    }
    return nullptr;
}

bool Turns::IsEmpty() const {
    const LockGuard guard(m_lock);
    return m_threads.empty();
}

void Turns::End() {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    m_ended = true;
    for (const auto &[id, thread] : m_threads)
        SetEvent(thread->turn.get());
}

}  // namespace Simulator
