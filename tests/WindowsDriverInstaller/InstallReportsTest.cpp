// What is told, and in which order, of an installation that nobody can wait for any longer.
#include <string>
#include <vector>

#include "HungLine.h"
#include "InstallMachine.h"
#include "Lock.h"
#include "WindowsFunctions.h"

namespace {

SIMULATOR_FUNCTION(SuspendThread, "KERNEL32.dll", ReturnsMinusOne);

/// Notes what is told to the agent, and when a thread is paused for its stack.
class ReportOrder : public VtaCore::Control::Observer {
public:
    explicit ReportOrder(Simulator::Simulation &simulation) {
        simulation.Functions().Put<SuspendThread>([this](const auto &next, HANDLE thread) {
            Note("stack");
            return next(thread);
        });
        VtaCore::Control::SetObserver(this);
    }
    ~ReportOrder() override { VtaCore::Control::SetObserver(nullptr); }
    ReportOrder(const ReportOrder &) = delete;
    ReportOrder &operator=(const ReportOrder &) = delete;

    void OnEvent(const VtaCore::Control::Event &event) override {
        Note("event " + std::to_string(event.number) + " " + event.text.BeforeFirst('|').utf8_string());
    }
    void OnNotification(const VtaCore::Control::Notification &notification) override {
        Note("notification " + std::to_string(notification.code));
    }
    [[nodiscard]] std::vector<std::string> Notes() {
        const Simulator::LockGuard guard(m_lock);
        return m_notes;
    }

private:
    void Note(const std::string &what) {
        const Simulator::InsideSimulator inside;
        const Simulator::LockGuard guard(m_lock);
        m_notes.push_back(what);
    }

    Simulator::Lock m_lock;
    std::vector<std::string> m_notes;
};

using InstallReports = InstallMachine;

TEST_F(InstallReports, OfAStalledWatchdogAreTheNotificationThenItsStackThenTheEvent) {
    ReportOrder order(simulation());
    const FaultPlan plan = faults().HangNth("GetAdaptersInfo", 2);
    std::vector<std::string> notes;
    const InstallOutcome outcome = InstallWhile([&] {
        ASSERT_TRUE(plan->WaitUntilHit(kPatienceMs));
        AdvanceMs(3'600'001);
        EXPECT_TRUE(AwaitReturn());
        notes = order.Notes();
        plan->Release();
    });
    EXPECT_FALSE(outcome.result);
    EXPECT_EQ(notes, (Lines{"notification 5", "stack", "event 1004 OverallInstall"}));
}

TEST_F(InstallReports, OfAWorkerThatIsKilledWhileItLogsHaveItsLinesUpToThat) {
    {
        HungLine line("netqbimvtam.inf -> ");
        const InstallOutcome outcome = InstallWhile([&] {
            ASSERT_TRUE(line.WaitUntilHit(kPatienceMs));
            PassTime(600'000);
            EXPECT_TRUE(AwaitReturn());
        });
        EXPECT_TRUE(outcome.result);
        EXPECT_EQ(FailedStep(outcome), "CopyingInfFiles");
        EXPECT_TRUE(WorkerLog(outcome).ends_with("  netqbimvtam.inf -> <folder>\\Windows\\inf\\oem1.inf\n"))
            << WorkerLog(outcome);
        EXPECT_EQ(outcome.EventTexts(1007), Lines{});
    }
    SetRunningVersion(std::nullopt);
    EXPECT_TRUE(Succeeded(Install()));
}

}  // namespace
