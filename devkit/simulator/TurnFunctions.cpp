// The functions that make threads and queue work for them, suspend and end them, and the wait for a critical section.
#include "Clock.h"

#include <memory>
#include <utility>

#include "FunctionSet.h"
#include "WindowsFunctions.h"

namespace Simulator {

namespace {

SIMULATOR_FUNCTION(QueueUserWorkItem, "KERNEL32.dll", ReturnsZero);

/// Real milliseconds that a thread gets to end when it was killed.
constexpr DWORD kKillMs = 5'000;
constexpr DWORD kFailed = static_cast<DWORD>(-1);  ///< The result of SuspendThread and ResumeThread.

/// How a thread is to begin when it gets its first turn.
template <class Begin>
struct Start {
    std::shared_ptr<Core> core;
    Begin begin;
    void *argument;
};

template <class Result, class Begin>
Result WINAPI RunInTurn(void *address) {
    const std::unique_ptr<Start<Begin>> start(static_cast<Start<Begin> *>(address));
    Turns &turns = start->core->clock.GetTurns();
    turns.AwaitFirst();
    const Result result = start->begin(start->argument);
    turns.Leave();
    return result;
}

/// Makes a thread that takes part, if the one that makes it does.
/// @param make  of a beginning and its argument; the thread is suspended.
template <class Result, class Begin, class Make>
auto MakeInTurn(const std::shared_ptr<Core> &core, Begin begin, void *argument, bool isSuspended, const Make &make) {
    auto start = std::make_unique<Start<Begin>>(Start<Begin>{core, begin, argument});
    const auto made = make(&RunInTurn<Result, Begin>, start.get());
    if (!made)
        return made;
    (void)start.release();
    const auto thread = (HANDLE)made;  // a handle, or a number that is one
    Turns &turns = core->clock.GetTurns();
    turns.Add(thread);
    if (!isSuspended && ::ResumeThread(thread) != kFailed)
        turns.NoteResumed(thread);
    return made;
}

void InstallStarts(FunctionSet &functions, const std::shared_ptr<Core> &core) {
    functions.Put<System::_beginthreadex>([core](const auto &next, void *security, unsigned stack, auto begin,
                                                 void *argument, unsigned flags, unsigned *id) -> std::uintptr_t {
        if (!core->clock.GetTurns().TakesPart())
            return next(security, stack, begin, argument, flags, id);
        return MakeInTurn<unsigned>(core, begin, argument, (flags & CREATE_SUSPENDED) != 0, [&](auto run, void *start) {
            return next(security, stack, run, start, flags | CREATE_SUSPENDED, id);
        });
    });
    functions.Put<System::CreateThread>([core](const auto &next, auto *security, SIZE_T stack, auto begin,
                                               void *argument, DWORD flags, DWORD *id) -> HANDLE {
        if (!core->clock.GetTurns().TakesPart())
            return next(security, stack, begin, argument, flags, id);
        return MakeInTurn<DWORD>(core, begin, argument, (flags & CREATE_SUSPENDED) != 0, [&](auto run, void *start) {
            return next(security, stack, run, start, flags | CREATE_SUSPENDED, id);
        });
    });
}

/// What is queued gets a thread of its own: those of the system's pool take no part.
void InstallQueue(FunctionSet &functions, const std::shared_ptr<Core> &core) {
    functions.Put<QueueUserWorkItem>([core](const auto &next, auto work, void *context, ULONG flags) -> BOOL {
        if (!core->clock.GetTurns().TakesPart())
            return next(work, context, flags);
        const UniqueHandle thread(MakeInTurn<DWORD>(core, work, context, false, [](auto run, void *start) {
            return ::CreateThread(nullptr, 0, run, start, CREATE_SUSPENDED, nullptr);
        }));
        return thread != nullptr;
    });
}

void InstallPauses(FunctionSet &functions, const std::shared_ptr<Core> &core) {
    functions.Put<System::SuspendThread>([core](const auto &next, HANDLE thread) {
        const DWORD result = next(thread);
        if (result != kFailed)
            core->clock.GetTurns().NoteSuspended(thread);
        return result;
    });
    functions.Put<System::ResumeThread>([core](const auto &next, HANDLE thread) {
        const DWORD result = next(thread);
        if (result != kFailed)
            core->clock.GetTurns().NoteResumed(thread);
        return result;
    });
    // A killed thread ends a little later, which no simulated time must depend on.
    functions.Put<System::TerminateThread>([core](const auto &next, HANDLE thread, DWORD code) {
        const BOOL killed = next(thread, code);
        if (killed && core->clock.GetTurns().TakesPart())
            (void)::WaitForSingleObject(thread, kKillMs);
        return killed;
    });
}

}  // namespace

void InstallTurns(FunctionSet &functions, const std::shared_ptr<Core> &core) {
    InstallStarts(functions, core);
    InstallQueue(functions, core);
    InstallPauses(functions, core);
    functions.Put<System::EnterCriticalSection>([core](const auto &next, CRITICAL_SECTION *section) {
        Turns &turns = core->clock.GetTurns();
        if (!turns.TakesPart()) {
            next(section);
            return;
        }
        const bool isFree = TryEnterCriticalSection(section) != 0;
        if (!isFree && !turns.Wait(std::nullopt, [section] { return TryEnterCriticalSection(section) != 0; }))
            next(section);
    });
}

}  // namespace Simulator
