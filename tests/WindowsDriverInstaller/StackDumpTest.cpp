// The call stack of a real thread.
#include "WindowsDriverInstaller/reports/StackDump.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <malloc.h>
#include <windows.h>
// after windows.h, which it needs
#include <dbghelp.h>
#include <wx/log.h>
#include <wx/tokenzr.h>

#include "CallInThread.h"
#include "Event.h"
#include "ImportTable.h"
#include "LogCollector.h"
#include "Simulation.h"
#include "StackText.h"
#include "WindowsFunctions.h"

namespace {

SIMULATOR_FUNCTION(GetThreadContext, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(SuspendThread, "KERNEL32.dll", ReturnsMinusOne);
SIMULATOR_FUNCTION(ResumeThread, "KERNEL32.dll", ReturnsMinusOne);
SIMULATOR_FUNCTION(SymInitializeW, "dbghelp.dll", ReturnsZero);
SIMULATOR_FUNCTION(StackWalk64, "dbghelp.dll", ReturnsZero);

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// Sleeps at that call depth until it is released.
class SleepingThread : public wxThread {
public:
    explicit SleepingThread(unsigned depth) : wxThread(wxTHREAD_JOINABLE), m_depth(depth) { (void)Create(); }

    Simulator::Event reached;
    Simulator::Event letGo;

protected:
    ExitCode Entry() override {
        (void)Descend(m_depth);
        return nullptr;
    }

private:
    // NOLINTNEXTLINE(misc-no-recursion): the recursion is what the test needs
    [[gnu::noinline]] unsigned Descend(unsigned depth) {
        if (depth > 0)
            return Descend(depth - 1) + (letGo.IsSet() ? 1U : 0U);
        const Simulator::InsideSimulator inside;
        reached.Set();
        while (!letGo.IsSet())
            Sleep(20);
        return 0;
    }

    unsigned m_depth;
};

/// Takes a lock when it is about to be paused, and gives it back once it was resumed. While it exists, plain functions
/// replace those that pause and resume: the simulator's allocate, which beside a locked heap they must not.
class HoldingWhilePaused : public wxThread {
public:
    HoldingWhilePaused(std::function<void()> take, std::function<void()> give)
        : wxThread(wxTHREAD_JOINABLE), m_take(std::move(take)), m_give(std::move(give)) {
        s_current = this;
        s_realSuspend = reinterpret_cast<Change>(m_suspends.Original());
        s_realResume = reinterpret_cast<Change>(m_resumesOfWx.Original());
        (void)Create();
    }

    /// Lets it end, even if nothing has paused it.
    void LetGo() {
        for (Simulator::Event *const event : {&m_wanted, &m_resumed, &m_letGo})
            event->Set();
    }
    /// How often it was resumed since it took the lock.
    [[nodiscard]] unsigned Resumes() const { return m_resumes; }

protected:
    ExitCode Entry() override {
        m_wanted.Wait(INFINITE);
        m_take();
        m_held.Set();
        m_resumed.Wait(INFINITE);
        m_give();
        m_letGo.Wait(INFINITE);
        return nullptr;
    }

private:
    using Change = DWORD(WINAPI *)(HANDLE);

    static DWORD WINAPI Suspend(HANDLE thread) {
        const Simulator::InsideSimulator inside;  // now, since a thread's first use of it may allocate
        s_current->m_wanted.Set();
        s_current->m_held.Wait(INFINITE);
        return s_realSuspend(thread);
    }
    static DWORD WINAPI Resume(HANDLE thread) {
        const DWORD count = s_realResume(thread);
        if (s_current->m_held.IsSet()) {
            ++s_current->m_resumes;
            s_current->m_resumed.Set();
        }
        return count;
    }
    static Simulator::Redirection Redirect(const wchar_t *module, const char *function, Change replacement) {
        return {GetModuleHandleW(module), function, reinterpret_cast<void *>(replacement)};
    }

    inline static HoldingWhilePaused *s_current = nullptr;
    inline static Change s_realSuspend = nullptr;
    inline static Change s_realResume = nullptr;

    std::function<void()> m_take, m_give;
    Simulator::Event m_wanted, m_held, m_resumed, m_letGo;
    std::atomic<unsigned> m_resumes{0};
    const Simulator::Redirection m_suspends = Redirect(L"" FC_WX_DLL, "SuspendThread", &Suspend);
    const Simulator::Redirection m_resumesOfWx = Redirect(L"" FC_WX_DLL, "ResumeThread", &Resume);
    const Simulator::Redirection m_resumesOfThisProgram = Redirect(nullptr, "ResumeThread", &Resume);
};

/// Captures the stack of a thread that is paused while it holds the lock. The text must not be empty.
/// @return how often the thread was resumed: once, unless the walk had to wait for the lock.
unsigned ResumesOfCaptureBesideLock(std::function<void()> take, std::function<void()> give) {
    PrepareStackDump();
    HoldingWhilePaused thread(std::move(take), std::move(give));
    EXPECT_EQ(thread.Run(), wxTHREAD_NO_ERROR);
    const CallInThread capture([&] { return CaptureThreadStack(&thread).utf8_string(); });
    while (!capture.EndsWithin(60'000)) {
        (void)::ResumeThread(thread.MSWGetHandle());  // first: a failure allocates
        ADD_FAILURE() << "the walk waits for the thread that it has paused";
    }
    const std::string text = capture.Get();
    EXPECT_TRUE(text.starts_with("[00] ")) << text;
    EXPECT_TRUE(thread.IsRunning());
    thread.LetGo();
    (void)thread.Wait();
    return thread.Resumes();
}

TEST(StackDumpBesideLocks, WalksTheStackOfAThreadThatHoldsTheHeap) {
    const HANDLE heaps[] = {GetProcessHeap(), reinterpret_cast<HANDLE>(_get_heap_handle())};
    const unsigned resumes = ResumesOfCaptureBesideLock(
        [&] {
            for (const HANDLE heap : heaps)
                EXPECT_TRUE(HeapLock(heap));
        },
        [&] {
            for (const HANDLE heap : heaps)
                EXPECT_TRUE(HeapUnlock(heap));
        });
    EXPECT_EQ(resumes, 1U) << "after the walk, which waits for nothing";
}

TEST(StackDumpBesideLocks, WalksTheStackOfAThreadThatHoldsTheLoaderLock) {
    using Lock = LONG(NTAPI *)(ULONG flags, ULONG * state, ULONG_PTR * cookie);
    using Unlock = LONG(NTAPI *)(ULONG flags, ULONG_PTR cookie);
    const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    const auto lock = reinterpret_cast<Lock>(reinterpret_cast<void *>(GetProcAddress(ntdll, "LdrLockLoaderLock")));
    const auto unlock =
        reinterpret_cast<Unlock>(reinterpret_cast<void *>(GetProcAddress(ntdll, "LdrUnlockLoaderLock")));
    ASSERT_TRUE(lock != nullptr && unlock != nullptr);
    ULONG_PTR cookie = 0;
    const unsigned resumes = ResumesOfCaptureBesideLock([&] { EXPECT_EQ(lock(0, nullptr, &cookie), 0); },
                                                        [&] { EXPECT_EQ(unlock(0, cookie), 0); });
    // Wine finds the module of an address under this lock: there the walk waits until the thread is resumed late.
    EXPECT_LE(resumes, 2U) << "late at most, and after the walk";
}

/// Holds a lock until it is resumed.
class HoldingUntilResumed : public wxThread {
public:
    HoldingUntilResumed() : wxThread(wxTHREAD_JOINABLE) { (void)Create(); }

    wxCriticalSection lock;
    Simulator::Event reached;
    Simulator::Event resumed;
    Simulator::Event letGo;

protected:
    ExitCode Entry() override {
        const Simulator::InsideSimulator inside;
        {
            const wxCriticalSectionLocker locker(lock);
            reached.Set();
            resumed.Wait(INFINITE);
        }
        letGo.Wait(INFINITE);
        return nullptr;
    }
};

/// The thread is in its sleep, and must run to its end.
class StackDumpOf : public testing::Test {
protected:
    StackDumpOf() {
        functions().PassThrough<GetThreadContext>();
        functions().PassThrough<SuspendThread>();
        functions().PassThrough<ResumeThread>();
        functions().PassThrough<SymInitializeW>();
        functions().PassThrough<StackWalk64>();
        for (const wchar_t *name : {static_cast<const wchar_t *>(nullptr), L"" FC_WX_DLL})
            EXPECT_NE(m_simulation.Attach(GetModuleHandleW(name)), 0U);
    }

    /// The dump of a thread that sleeps at that call depth; afterwards the thread must run to its end.
    std::string Capture(unsigned depth) {
        SleepingThread thread(depth);
        EXPECT_EQ(thread.Run(), wxTHREAD_NO_ERROR);
        EXPECT_TRUE(thread.reached.Wait(60'000));
        (void)journal().Take();
        const std::size_t handles = OpenHandles();
        std::string text = CaptureThreadStack(&thread).utf8_string();
        EXPECT_EQ(OpenHandles(), handles);
        EXPECT_TRUE(thread.IsRunning());
        m_names = journal().Names();
        thread.letGo.Set();
        (void)thread.Wait();
        return text;
    }
    /// The dump of a thread that, until it is resumed, holds a lock that the function takes. Once in a fixture.
    template <class F>
    std::string CaptureBesideLockOf() {
        HoldingUntilResumed thread;
        EXPECT_EQ(thread.Run(), wxTHREAD_NO_ERROR);
        EXPECT_TRUE(thread.reached.Wait(60'000));
        functions().Put<F>([&thread](const auto &next, auto... arguments) {
            const wxCriticalSectionLocker locker(thread.lock);
            return next(arguments...);
        });
        functions().Put<ResumeThread>([&thread](const auto &next, HANDLE handle) {
            const DWORD count = next(handle);
            if (count != static_cast<DWORD>(-1))
                thread.resumed.Set();
            return count;
        });
        (void)journal().Take();
        const CallInThread capture([&] { return CaptureThreadStack(&thread).utf8_string(); });
        while (!capture.EndsWithin(60'000)) {
            ADD_FAILURE() << "the walk waits for the thread that it has paused";
            thread.resumed.Set();
            (void)ResumeThread::Real(thread.MSWGetHandle());
        }
        m_names = journal().Names();
        EXPECT_TRUE(thread.IsRunning());
        thread.letGo.Set();
        (void)thread.Wait();
        return capture.Get();
    }
    [[nodiscard]] std::size_t Calls(const std::string &function) const {
        return static_cast<std::size_t>(std::count(m_names.begin(), m_names.end(), function));
    }
    [[nodiscard]] std::size_t OpenHandles() { return m_simulation.GetBalance().Take().Count(Simulator::Kind::kHandle); }
    Simulator::FunctionSet &functions() { return m_simulation.Functions(); }
    Simulator::Journal &journal() { return m_simulation.GetJournal(); }
    Simulator::Faults &faults() { return m_simulation.GetFaults(); }

private:
    Simulator::Simulation m_simulation{{.registry = false, .folders = false}};
    std::vector<std::string> m_names;
};

/// Each line has its number, and a frame such as "NtDelayExecution+20" or "0000000140001000".
void ExpectNumberedFrames(const std::string &text) {
    static const std::regex frame(R"(\[(\d{2,})\] ([^:]+:)?(.+\+\d+|[0-9A-Fa-f]{16}))");
    const wxArrayString lines = wxStringTokenize(wxString::FromUTF8(text), "\n", wxTOKEN_RET_EMPTY_ALL);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::string line = lines[i].utf8_string();
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, frame)) << line;
        EXPECT_EQ(std::stoul(match[1]), i) << line;
    }
}

/// The frames of the sleeping thread's own calls, by their name.
std::size_t NamedCalls(const std::string &text) {
    static const std::regex call(R"(\] (`anonymous namespace'|\(anonymous namespace\))::SleepingThread::Descend\+\d+)");
    return static_cast<std::size_t>(
        std::distance(std::sregex_iterator(text.begin(), text.end(), call), std::sregex_iterator()));
}

std::size_t FrameCount(const std::string &text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
}

TEST_F(StackDumpOf, ASleepingThreadNumbersItsFramesFromZero) {
    const std::string text = Capture(10);
    ASSERT_EQ(text.rfind("[00] ", 0), 0U) << text;
    EXPECT_GT(FrameCount(text), 10U) << text;
    ExpectNumberedFrames(text);
    EXPECT_EQ(NamedCalls(text), 11U) << text;
    EXPECT_EQ(NamelessFramesOfOurs(text), std::vector<std::string>{}) << text;
    EXPECT_EQ(Calls("OpenThread"), 1U);
    EXPECT_EQ(Calls("ResumeThread"), 1U);
}

TEST_F(StackDumpOf, ADeepRecursionHas200Frames) {
    const std::string text = Capture(300);
    EXPECT_EQ(FrameCount(text), 200U);
    ExpectNumberedFrames(text);
    EXPECT_GT(NamedCalls(text), 190U) << text;
}

TEST_F(StackDumpOf, AThreadThatCannotBePausedIsEmptyAndTheThreadIsNotResumed) {
    LogCollector log;
    const auto plan = faults().FailNth("SuspendThread", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(Capture(0), "");
    EXPECT_TRUE(plan->Hit());
    EXPECT_EQ(log.Take(), std::vector<LogLine>{}) << "the capture silences what wxThread would log";
    EXPECT_EQ(Calls("OpenThread"), 0U);
    EXPECT_EQ(Calls("ResumeThread"), 0U);
}

TEST_F(StackDumpOf, AThreadThatHoldsALockOfTheWalkIsResumedAfterSomeSeconds) {
    const steady_clock::time_point begin = steady_clock::now();
    EXPECT_EQ(CaptureBesideLockOf<StackWalk64>().rfind("[00] ", 0), 0U);
    EXPECT_GE(steady_clock::now() - begin, milliseconds(4'900));
    EXPECT_EQ(Calls("ResumeThread"), 2U) << "by the timer, and after the walk";
}

TEST_F(StackDumpOf, AThreadThatHoldsALockOfTheWalkIsResumedAgainIfThatFails) {
    const auto plan = faults().FailNth("ResumeThread", 2, ERROR_ACCESS_DENIED);  // the first one starts the thread
    EXPECT_EQ(CaptureBesideLockOf<StackWalk64>().rfind("[00] ", 0), 0U);
    EXPECT_TRUE(plan->Hit());
    EXPECT_EQ(Calls("ResumeThread"), 3U);
}

TEST_F(StackDumpOf, AThreadThatHoldsALockOfTheSymbolsDoesNotDelayTheWalk) {
    EXPECT_EQ(CaptureBesideLockOf<SymInitializeW>().rfind("[00] ", 0), 0U);
    EXPECT_EQ(Calls("ResumeThread"), 1U);
}

TEST_F(StackDumpOf, AThreadThatCannotBeResumedIsResumedAgain) {
    LogCollector log;
    const auto plan = faults().FailNth("ResumeThread", 2, ERROR_ACCESS_DENIED);  // the first one starts the thread
    EXPECT_EQ(Capture(3).rfind("[00] ", 0), 0U);
    EXPECT_TRUE(plan->Hit());
    EXPECT_EQ(log.Take(), std::vector<LogLine>{}) << "the capture silences what wxThread would log";
    EXPECT_EQ(Calls("ResumeThread"), 2U);
}

TEST_F(StackDumpOf, AThreadDoesNotPauseItWithoutTheThreadThatResumesItLate) {
    for (const char *function : {"DuplicateHandle", "CreateEventW", "CreateThread"}) {
        const auto plan = faults().FailNth(function, 1, ERROR_ACCESS_DENIED);
        EXPECT_EQ(Capture(0), "") << function;
        EXPECT_TRUE(plan->Hit()) << function;
        EXPECT_EQ(Calls("SuspendThread"), 0U) << function;
        faults().Clear();
    }
}

/// A frame with a name, such as "NtDelayExecution+20".
bool HasNames(const std::string &text) {
    return text.find('+') != text.npos;
}

TEST_F(StackDumpOf, AProcessWhoseSymbolsAnotherComponentHasOpenedHasNames) {
    functions().Put<SymInitializeW>([](const auto &next, HANDLE process, PCWSTR path, BOOL invade) -> BOOL {
        if (process != GetCurrentProcess())
            return next(process, path, invade);
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    });
    const std::string text = Capture(10);
    ExpectNumberedFrames(text);
    EXPECT_GT(FrameCount(text), 10U) << text;
    EXPECT_EQ(NamedCalls(text), 11U) << text;
}

TEST_F(StackDumpOf, AProcessLeavesTheSymbolsOfAnotherComponentOpen) {
    ASSERT_TRUE(::SymInitializeW(GetCurrentProcess(), L"C:\\another", FALSE));
    const DWORD options = SymGetOptions();
    (void)Capture(0);
    wchar_t path[MAX_PATH] = L"";
    EXPECT_TRUE(SymGetSearchPathW(GetCurrentProcess(), path, MAX_PATH));
    EXPECT_STREQ(path, L"C:\\another");
    EXPECT_EQ(SymGetOptions(), options);
    EXPECT_TRUE(SymCleanup(GetCurrentProcess()));
}

TEST_F(StackDumpOf, AProcessWithoutSymbolsHasAddresses) {
    faults().FailEvery("SymInitializeW", ERROR_INVALID_PARAMETER);
    const std::string text = Capture(10);
    ExpectNumberedFrames(text);
    EXPECT_GT(FrameCount(text), 10U) << text;
    EXPECT_FALSE(HasNames(text)) << text;
    EXPECT_GT(NamelessFramesOfOurs(text).size(), 10U) << text;
}

TEST_F(StackDumpOf, AThreadSearchesForSymbolsOnlyOnThisMachine) {
    for (const wchar_t *variable : {L"_NT_SYMBOL_PATH", L"_NT_ALT_SYMBOL_PATH"})
        SetEnvironmentVariableW(variable, L"srv*https://symbols.example/download");
    wchar_t searched[1'024] = L"";
    DWORD options = 0;
    functions().Put<SymInitializeW>([&](const auto &next, HANDLE process, PCWSTR path, BOOL invade) {
        const BOOL opened = next(process, path, invade);
        EXPECT_TRUE(SymGetSearchPathW(process, searched, 1'024));
        options = SymGetOptions();
        return opened;
    });
    EXPECT_NE(Capture(0), "");
    wchar_t program[MAX_PATH] = L"";
    (void)GetModuleFileNameW(nullptr, program, MAX_PATH);
    EXPECT_EQ(std::wstring(searched), std::wstring(program, std::wstring(program).rfind(L'\\')));
    constexpr DWORD local = SYMOPT_IGNORE_NT_SYMPATH | SYMOPT_IGNORE_CVREC | SYMOPT_DISABLE_SYMSRV_AUTODETECT;
    EXPECT_EQ(options & local, local);
    for (const wchar_t *variable : {L"_NT_SYMBOL_PATH", L"_NT_ALT_SYMBOL_PATH"})
        SetEnvironmentVariableW(variable, nullptr);
}

TEST_F(StackDumpOf, AThreadThatCannotBeOpenedOrReadIsEmptyAndTheThreadContinues) {
    for (const char *function : {"OpenThread", "GetThreadContext"}) {
        // Fails every call: wxThread reads the context of a thread that it pauses, too.
        const auto plan = faults().FailEvery(function, ERROR_ACCESS_DENIED);
        EXPECT_EQ(Capture(0), "") << function;
        EXPECT_TRUE(plan->Hit()) << function;
        EXPECT_EQ(Calls("ResumeThread"), 1U) << function;
        faults().Clear();
    }
}

}  // namespace
