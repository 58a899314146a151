// The watcher of a removal: how it ends when no step overruns, or when more than that fails.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <dbghelp.h>
#include <wx/log.h>

#include "HungRemoval.h"
#include "ThreadFaults.h"

namespace {

SIMULATOR_FUNCTION(EnterCriticalSection, "KERNEL32.dll", CannotFail);
SIMULATOR_FUNCTION(GetModuleFileNameW, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(GetThreadContext, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(OpenThread, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(StackWalk64, "dbghelp.dll", ReturnsZero);
SIMULATOR_FUNCTION(SuspendThread, "KERNEL32.dll", ReturnsMinusOne);
SIMULATOR_FUNCTION(SymInitializeW, "dbghelp.dll", ReturnsZero);

using Simulator::InsideSimulator;

/// Takes the log over from the fixture, with the codes of the lines.
class CodedLog : public wxLog {
public:
    struct Line {
        std::string text;
        wxUIntPtr code;
        bool operator==(const Line &) const = default;
    };

    CodedLog() : m_before(SetActiveTarget(this)) {}
    ~CodedLog() override { SetActiveTarget(m_before); }
    CodedLog(const CodedLog &) = delete;
    CodedLog &operator=(const CodedLog &) = delete;

    [[nodiscard]] const std::vector<Line> &Errors() const { return m_errors; }
    [[nodiscard]] const std::vector<std::string> &Infos() const { return m_infos; }

protected:
    void DoLogRecord(wxLogLevel level, const wxString &message, const wxLogRecordInfo &info) override {
        wxUIntPtr code = 0;
        (void)info.GetNumValue("wx.sys_error", &code);
        if (level == wxLOG_Error)
            m_errors.push_back({message.utf8_string(), code});
        else if (level == wxLOG_Info)
            m_infos.push_back(message.utf8_string());
    }

private:
    wxLog *const m_before;
    std::vector<Line> m_errors;
    std::vector<std::string> m_infos;
};

/// A section that its creator's thread holds, and that another thread tries to enter.
class ContendedSection {
public:
    void Note(const CRITICAL_SECTION &section) {
        if (GetCurrentThreadId() == m_holder || HandleToULong(section.OwningThread) != m_holder)
            return;
        m_countBefore = section.LockCount;
        m_section = &section;
    }
    /// Whether the other thread is counted among those that wait for it.
    [[nodiscard]] bool IsWaitedFor() const {
        const CRITICAL_SECTION *const section = m_section;
        return section != nullptr && section->LockCount != m_countBefore;
    }

private:
    const DWORD m_holder = GetCurrentThreadId();
    std::atomic<LONG> m_countBefore{0};
    std::atomic<const CRITICAL_SECTION *> m_section{nullptr};
};

class RemovalWatch : public HungRemoval {
protected:
    RemovalWatch() { ThreadFaults::Redirect(simulation()); }

    /// How often this thread has called the function since the removal began.
    std::size_t CallsOfMine(const std::string &function) {
        const auto calls = simulation().GetJournal().Entries();
        return static_cast<std::size_t>(std::count_if(calls.begin(), calls.end(), [&function](const auto &entry) {
            return entry.thread == GetCurrentThreadId() && entry.function == function;
        }));
    }

    /// While a step overruns. @return the stacks that were logged: of the killed worker, if all is well.
    std::vector<std::string> StacksOfOverrun() {
        const Hang hang = HangIn("INetCfg::Apply", 1, 300'000);
        EXPECT_TRUE(hang.killed);
        EXPECT_TRUE(hang.destroyed);
        EXPECT_FALSE(hang.removal.result);
        return hang.Stacks();
    }
    /// Calls it each time a worker was paused, for its stack.
    void WhenPaused(const std::function<void()> &call) {
        simulation().Functions().Put<SuspendThread>([call](const auto &next, HANDLE thread) {
            const DWORD count = next(thread);
            call();
            return count;
        });
    }
    /// Releases the worker's call, and waits until the worker has ended.
    void EndWorkersCall() {
        simulation().GetFaults().ReleaseHung();
        EXPECT_TRUE(AwaitEndOfWorker());
    }
    /// The worker whose step was about to be taken for overrun has done its work.
    void ExpectNoKill(const Hang &hang) {
        EXPECT_TRUE(hang.met);
        EXPECT_TRUE(hang.waitedToTheEnd);
        EXPECT_TRUE(hang.removal.result);
        EXPECT_EQ(hang.Stacks(), std::vector<std::string>{});
        EXPECT_EQ(simulation().GetJournal().Count("TerminateThread"), 0U);
        EXPECT_TRUE(hang.destroyed);
        EXPECT_FALSE(HasService());
    }

    /// An orphan that stays although its component is de-installed, and each de-installation takes so long.
    void PutSlowOrphan(DWORD deInstallMs) {
        RemoveDrivers();
        PutOrphan();
        simulation().GetNetwork().Put({.id = L"QBIMVTA_MP", .deInstallsUntilGone = 0});
        simulation().GetFaults().DelayEvery("INetCfgClassSetup::DeInstall", deInstallMs);
    }
};

TEST_F(RemovalWatch, DoesNotWaitForAWorkerThatIsDoneWithinTheFirst100Milliseconds) {
    const int objects = VtaCore::Control::LiveObjects();
    const auto sleep = simulation().GetFaults().HangNth("Sleep", 1, kCallerThread);
    bool ended = false;
    const Removal removal = UninstallWhile([&] {
        ended = AwaitEndOfWorker();
        sleep->Release();
    });
    EXPECT_TRUE(ended);
    EXPECT_TRUE(removal.result);
    EXPECT_EQ(CallsOfMine("Sleep"), 1U);
    for (const auto &call : simulation().GetJournal().Entries())
        EXPECT_FALSE(call.thread == GetCurrentThreadId() && call.function == "WaitForSingleObject" &&
                     !call.arguments.ends_with(", 5000"))
            << "it waits only for the thread to end after its body, not for a step: " << call.arguments;
    EXPECT_EQ(removal.tookMs, 100U);
    EXPECT_EQ(VtaCore::Control::LiveObjects(), objects);
}

TEST_F(RemovalWatch, ThreadsAreAwaitedWithTheWorkThatWasQueued) {
    (void)simulation().Functions().Attach(GetModuleHandleW(nullptr), {"QueueUserWorkItem"});
    Simulator::Event go;
    const auto work = [](void *event) -> DWORD {
        const Simulator::InsideSimulator inside;
        static_cast<const Simulator::Event *>(event)->Wait(INFINITE);
        return 0;
    };
    ASSERT_TRUE(QueueUserWorkItem(work, &go, WT_EXECUTELONGFUNCTION));
    EXPECT_FALSE(threads.AwaitEnds(0));
    go.Set();
    EXPECT_TRUE(threads.AwaitEnds(kPatienceMs));
}

TEST_F(RemovalWatch, KillsTheWorkerWhenTheWaitFails) {
    simulation().GetFaults().FailNth("WaitForSingleObject", 1, ERROR_INVALID_HANDLE, kCallerThread);
    const CodedLog coded;
    const Hang hang = HangIn("INetCfg::Apply", 1, 300'000);
    EXPECT_TRUE(hang.met);
    EXPECT_FALSE(hang.removal.result);
    EXPECT_TRUE(hang.killed);
    EXPECT_EQ(hang.removal.tookMs, 100U);
    ASSERT_EQ(coded.Errors().size(), 1U);
    EXPECT_TRUE(coded.Errors()[0].text.starts_with(
        "CDriverUninstallerThread::WaitForStepToFinish() - WaitForSingleObject() failed:"));
    EXPECT_EQ(coded.Errors()[0].code, wxUIntPtr{ERROR_INVALID_HANDLE});
    EXPECT_EQ(std::count_if(coded.Infos().begin(), coded.Infos().end(),
                            [](const std::string &line) { return line.starts_with("Stack trace:\n[00] "); }),
              1);
}

TEST_F(RemovalWatch, DoesNotKillTheWorkerWhenTheWaitFailsOutsideOfAllInnerSteps) {
    simulation().GetFaults().FailNth("WaitForSingleObject", 1, ERROR_INVALID_HANDLE, kCallerThread);
    const Hang hang = HangIn("ControlService", 1, 3'600'000, Fate::LivesOn);
    EXPECT_TRUE(hang.met);
    EXPECT_FALSE(hang.removal.result);
    EXPECT_FALSE(hang.killed);
    EXPECT_EQ(hang.Stacks(), std::vector<std::string>{});
    EXPECT_EQ(hang.removal.tookMs, 100U);
    EXPECT_TRUE(hang.ended);
    EXPECT_TRUE(hang.destroyed);
}

TEST_F(RemovalWatch, DoesNotKillTheWorkerAfterAnHour) {
    simulation().Functions().PassThrough<SuspendThread>();
    const Hang hang = HangIn("ControlService", 1, 3'600'000, Fate::LivesOn);
    EXPECT_TRUE(hang.waitedToTheEnd);
    EXPECT_FALSE(hang.removal.result);
    EXPECT_FALSE(hang.killed);
    EXPECT_EQ(hang.Stacks(), std::vector<std::string>{});
    EXPECT_EQ(simulation().GetJournal().Count("SuspendThread"), 0U) << "its stack is not read";
    EXPECT_EQ(hang.removal.tookMs, 3'600'000U);
    EXPECT_TRUE(hang.ended);
    EXPECT_TRUE(hang.destroyed);
    EXPECT_FALSE(HasService()) << "the worker completes its work";
}

TEST_F(RemovalWatch, LogsTheStackOnlyIfVerbose) {
    simulation().Functions().PassThrough<SuspendThread>();
    wxLog::SetVerbose(false);
    const Hang hang = HangIn("INetCfg::Apply", 1, 300'000);
    EXPECT_TRUE(hang.killed);
    EXPECT_EQ(simulation().GetJournal().Count("SuspendThread"), 1U) << "it is read in any case";
    EXPECT_EQ(hang.removal.Lines(wxLOG_Info), std::vector<std::string>{});
}

TEST_F(RemovalWatch, AddsUpTheTimesOfTheStepsOfAnOrphan) {
    PutSlowOrphan(100'000);
    const Hang hang = HangIn("SetupDiGetClassDevsW", 3, 200'100);
    EXPECT_TRUE(hang.met);
    EXPECT_FALSE(hang.waitedToTheEnd);
    EXPECT_EQ(hang.removal.tookMs, 200'100U);
    EXPECT_FALSE(hang.removal.result);
    EXPECT_TRUE(hang.killed);
    EXPECT_EQ(hang.Stacks().size(), 1U);
}

TEST_F(RemovalWatch, GivesTheNextStepOfAnOrphanTheRestOfTheTime) {
    PutSlowOrphan(89'000);
    const Hang hang = HangIn("SetupDiGetClassDevsW", 3, 180'000);
    EXPECT_TRUE(hang.met);
    EXPECT_TRUE(hang.waitedToTheEnd);
    EXPECT_EQ(hang.removal.tookMs, 180'000U);
    EXPECT_FALSE(hang.removal.result);
    EXPECT_TRUE(hang.killed);
}

// --- steps that end late ---

TEST_F(RemovalWatch, DoesNotReadTheStackOfAWorkerWhoseStepEndsAsItIsTakenForOverrun) {
    simulation().Functions().PassThrough<SuspendThread>();
    const DWORD caller = GetCurrentThreadId();
    const std::uint64_t deadline = simulation().GetClock().TickMs() + 300'000;
    unsigned checks = 0;
    simulation().Functions().Put<EnterCriticalSection>([&](const auto &next, CRITICAL_SECTION *section) {
        // The watcher finds the step overrun, and finds it overrun again before it acts.
        if (GetCurrentThreadId() == caller && simulation().GetClock().TickMs() >= deadline && ++checks == 2)
            EndWorkersCall();
        next(section);
    });
    ExpectNoKill(HangIn("INetCfg::Apply", 1, 300'000));
    EXPECT_EQ(simulation().GetJournal().Count("SuspendThread"), 0U);
}

TEST_F(RemovalWatch, DoesNotKillAWorkerWhoseStepEndsWhileItsStackIsRead) {
    simulation().Functions().PassThrough<SuspendThread>();
    simulation().Functions().Put<SymInitializeW>([&](const auto &next, auto... arguments) {
        EndWorkersCall();
        return next(arguments...);
    });
    ExpectNoKill(HangIn("INetCfg::Apply", 1, 300'000));
    EXPECT_EQ(simulation().GetJournal().Count("SuspendThread"), 1U);
}

// --- stacks ---

TEST_F(RemovalWatch, LogsNoStackOfAWorkerThatCannotBeReadAndKillsIt) {
    const std::vector<std::string> empty{"Stack trace:\n"};
    simulation().Functions().PassThrough<OpenThread>();
    simulation().Functions().PassThrough<GetThreadContext>();
    simulation().Functions().PassThrough<SuspendThread>();
    for (const char *function : {"SuspendThread", "OpenThread", "GetThreadContext"}) {
        SCOPED_TRACE(function);
        PutRight();
        const auto plan = simulation().GetFaults().FailEvery(function, ERROR_ACCESS_DENIED);
        EXPECT_EQ(StacksOfOverrun(), empty);
        EXPECT_TRUE(plan->Hit());
    }
}

TEST_F(RemovalWatch, DoesNotPauseAWorkerWithoutTheEventsOfTheThreadThatResumesIt) {
    simulation().Functions().PassThrough<SuspendThread>();
    for (const unsigned nth : {2U, 3U}) {  // the first event is the worker's own
        SCOPED_TRACE(nth);
        PutRight();
        const auto plan =
            simulation().GetFaults().FailNth("CreateEventW", nth, ERROR_NO_SYSTEM_RESOURCES, kCallerThread);
        EXPECT_EQ(StacksOfOverrun(), std::vector<std::string>{"Stack trace:\n"});
        EXPECT_TRUE(plan->Hit());
        EXPECT_EQ(simulation().GetJournal().Count("SuspendThread"), 0U);
    }
}

TEST_F(RemovalWatch, LogsAddressesIfTheSymbolsCannotBeOpened) {
    Simulator::FaultPlanHandle plan;
    WhenPaused([&] { plan = simulation().GetFaults().FailNth("DuplicateHandle", 1, ERROR_ACCESS_DENIED); });
    const std::vector<std::string> stacks = StacksOfOverrun();
    ASSERT_TRUE(plan && plan->Hit());
    ASSERT_EQ(stacks.size(), 1U);
    EXPECT_TRUE(stacks[0].starts_with("Stack trace:\n[00] 0000")) << stacks[0];
    EXPECT_EQ(stacks[0].find('+'), std::string::npos) << stacks[0];
}

TEST_F(RemovalWatch, SearchesForSymbolsInTheCurrentFolderIfTheModulesIsUnknown) {
    simulation().Functions().PassThrough<GetModuleFileNameW>();
    WhenPaused([&] { (void)simulation().GetFaults().FailNth("GetModuleFileNameW", 1, ERROR_NOT_ENOUGH_MEMORY); });
    EXPECT_EQ(StacksOfOverrun().size(), 1U);
    const std::vector<std::string> opens = Calls({"SymInitializeW"});
    ASSERT_EQ(opens.size(), 1U);
    EXPECT_NE(opens[0].find(", \".\", "), std::string::npos) << opens[0];
}

TEST_F(RemovalWatch, LogsTwoHundredFramesAtMost) {
    simulation().Functions().Put<StackWalk64>([](const auto &next, auto... arguments) -> BOOL {
        (void)next(arguments...);
        return TRUE;
    });
    const std::vector<std::string> stacks = StacksOfOverrun();
    ASSERT_EQ(stacks.size(), 1U);
    EXPECT_NE(stacks[0].find("\n[199] "), std::string::npos) << stacks[0];
    EXPECT_EQ(stacks[0].find("\n[200] "), std::string::npos) << stacks[0];
}

TEST_F(RemovalWatch, ResumesAWorkerAgainIfThatFailsAfterTheWalk) {
    const auto plan = simulation().GetFaults().FailNth("ResumeThread", 2, ERROR_ACCESS_DENIED);  // after the start
    EXPECT_EQ(StacksOfOverrun().size(), 1U);
    EXPECT_TRUE(plan->Hit());
    EXPECT_EQ(simulation().GetJournal().Count("ResumeThread"), 3U);
}

TEST_F(RemovalWatch, ResumesAWorkerAfterFiveSecondsIfTheWalkWaitsForALockOfIts) {
    Simulator::FaultPlanHandle refused;
    bool wasResumed = false;
    bool isPaused = false;
    WhenPaused([&] { isPaused = true; });
    simulation().Functions().Put<StackWalk64>([&](const auto &next, auto... arguments) {
        if (isPaused && !refused) {
            refused = simulation().GetFaults().FailNth("ResumeThread", 1, ERROR_ACCESS_DENIED);
            const unsigned before = simulation().GetFaults().Calls("ResumeThread");
            simulation().GetClock().Advance(std::chrono::milliseconds(5'000));
            wasResumed =
                Await(kPatienceMs, [&] { return simulation().GetFaults().Calls("ResumeThread") >= before + 2; });
        }
        return next(arguments...);
    });
    const std::vector<std::string> stacks = StacksOfOverrun();
    ASSERT_EQ(stacks.size(), 1U);
    EXPECT_TRUE(stacks[0].starts_with("Stack trace:\n[00] ")) << stacks[0];
    EXPECT_TRUE(wasResumed) << "again, since the first attempt was refused";
    EXPECT_TRUE(refused && refused->Hit());
    EXPECT_EQ(simulation().GetJournal().Count("ResumeThread"), 4U) << "for the start, twice late, and after the walk";
}

// --- kills ---

TEST_F(RemovalWatch, KeepsTheObjectOfAWorkerThatCannotBeKilledUntilItHasEnded) {
    ThreadFaults::GiveNoTimeToEnd(simulation());
    const auto plan = simulation().GetFaults().FailEvery("TerminateThread", ERROR_ACCESS_DENIED);
    const Hang hang = HangIn("INetCfg::Apply", 1, 300'000, Fate::LivesOn);
    EXPECT_TRUE(plan->Hit());
    EXPECT_FALSE(hang.removal.result);
    EXPECT_FALSE(hang.killed);
    EXPECT_TRUE(hang.ended);
    EXPECT_TRUE(hang.destroyed);
}

TEST_F(RemovalWatch, KillsAgainIfTheFirstAttemptIsRefused) {
    const auto plan = simulation().GetFaults().FailNth("TerminateThread", 1, ERROR_ACCESS_DENIED);
    const Hang hang = HangIn("INetCfg::Apply", 1, 300'000);
    EXPECT_TRUE(plan->Hit());
    EXPECT_FALSE(hang.removal.result);
    EXPECT_TRUE(hang.killed);
    EXPECT_TRUE(hang.destroyed);
}

TEST_F(RemovalWatch, KeepsTheObjectOfAKilledWorkerWhoseEndCannotBeDetected) {
    const int objects = VtaCore::Control::LiveObjects();
    simulation().GetFaults().FailEvery("DuplicateHandle", ERROR_ACCESS_DENIED);
    const Hang hang = HangIn("INetCfg::Apply", 1, 300'000, Fate::KilledButKept);
    EXPECT_FALSE(hang.removal.result);
    EXPECT_TRUE(hang.killed);
    EXPECT_FALSE(hang.destroyed);
    EXPECT_EQ(VtaCore::Control::LiveObjects(), objects + 1);
}

TEST_F(RemovalWatch, KeepsTheObjectOfAKilledWorkerWhoseEndCannotBeAwaited) {
    const int objects = VtaCore::Control::LiveObjects();
    std::atomic<bool> awaitedForGood{false};
    simulation().Functions().Put<Simulator::System::WaitForSingleObject>(
        [&awaitedForGood](const auto &next, HANDLE handle, DWORD ms) -> DWORD {
            if (GetThreadId(handle) == 0)
                return next(handle, ms);
            awaitedForGood = awaitedForGood || ms == INFINITE;
            SetLastError(ERROR_INVALID_HANDLE);
            return WAIT_FAILED;
        });
    const Hang hang = HangIn("INetCfg::Apply", 1, 300'000, Fate::KilledButKept);
    EXPECT_FALSE(hang.removal.result);
    EXPECT_TRUE(hang.killed);
    EXPECT_TRUE(Await(kPatienceMs, [&] { return awaitedForGood.load(); }));
    EXPECT_TRUE(threads.AwaitEnds(kPatienceMs)) << "nothing waits any longer";
    EXPECT_EQ(VtaCore::Control::LiveObjects(), objects + 1);
}

TEST_F(RemovalWatch, KillsAWorkerThatWasCreatedButCannotBeStarted) {
    const int objects = VtaCore::Control::LiveObjects();
    const auto before = balance().Take();
    const auto plan = simulation().GetFaults().FailNth("ResumeThread", 1, ERROR_ACCESS_DENIED);
    const Removal removal = Uninstall();
    EXPECT_TRUE(plan->Hit());
    EXPECT_FALSE(removal.result);
    EXPECT_EQ(simulation().GetJournal().Count("TerminateThread"), 1U);
    EXPECT_TRUE(HungCall::AwaitObjects(objects, before));
    EXPECT_EQ(removal.tookMs, 100U);
    simulation().GetFaults().Clear();
    EXPECT_TRUE(Uninstall().result);
}

TEST_F(RemovalWatch, KillsAWorkerThatWaitsForTheLockOfItsSteps) {
    const auto contended = std::make_shared<ContendedSection>();
    simulation().Functions().Put<EnterCriticalSection>([contended](const auto &next, CRITICAL_SECTION *section) {
        contended->Note(*section);
        next(section);
    });
    bool waits = false;
    simulation().Functions().Put<Simulator::System::TerminateThread>([&](const auto &next, HANDLE thread, DWORD code) {
        simulation().GetFaults().ReleaseHung();
        waits = Await(kPatienceMs, [&] { return contended->IsWaitedFor(); });  // the worker reaches the end of its step
        return next(thread, code);
    });
    const Hang hang = HangIn("INetCfg::Apply", 1, 300'000);
    EXPECT_TRUE(waits);
    EXPECT_TRUE(hang.killed);
    EXPECT_TRUE(hang.destroyed);
    EXPECT_FALSE(hang.removal.result);
    EXPECT_EQ(hang.Stacks().size(), 1U);
    for (const std::string &line : hang.removal.ThreadLog())
        EXPECT_EQ(line.find("<ApplyingInetCfgChanges"), line.npos);
    PutRight();
    EXPECT_TRUE(Uninstall().result);
}

}  // namespace
