// The watcher of a removal: how it ends when no step overruns, or when more than that fails.
#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <wx/log.h>

#include "HungRemoval.h"
#include "ThreadFaults.h"

namespace {

SIMULATOR_FUNCTION(EnterCriticalSection, "KERNEL32.dll", CannotFail);
SIMULATOR_FUNCTION(SuspendThread, "KERNEL32.dll", ReturnsMinusOne);

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
