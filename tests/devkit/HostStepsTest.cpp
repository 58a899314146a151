// The steps of installations and removals, as fc-host.exe shows and records them.
#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "DriverRuns.h"
#include "DriverTexts.h"
#include "HostProcess.h"
#include "StepDisplay.h"

namespace {

using News = DriverNews::What;

bool Mentions(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

/// Lines as threads log them, at times set by the test.
class HostSteps : public testing::Test {
protected:
    HostSteps() {
        runs.OnNews([this](const DriverNews &item) { news.push_back(item.what); });
    }

    void Line(DWORD thread, double time, const char *text) { runs.OnThreadLine({thread, wxLOG_Message, time, text}); }

    DriverRuns runs;
    std::vector<News> news;
};

}  // namespace

TEST(StepLine, IsReadFromTheLogWithItsLimit) {
    const std::optional<StepLine> begin = ParseStepLine("   >UninstallingDriver. 600s max");
    ASSERT_TRUE(begin);
    EXPECT_TRUE(begin->begins);
    EXPECT_EQ(begin->name, "UninstallingDriver");
    EXPECT_EQ(begin->limit, 600U);
    const std::optional<StepLine> end = ParseStepLine("  <UninstallingDriver");
    ASSERT_TRUE(end);
    EXPECT_FALSE(end->begins);
    EXPECT_EQ(end->name, "UninstallingDriver");
}

TEST(StepLine, DoesNotMatchOtherLines) {
    for (const char *line : {"", " ", "UninstallDriver running.", ">Name", ">Name. s max", ">Name. 60s maximum",
                             ">Name. -1s max", ">Name. 60x max", "a >Name. 60s max"})
        EXPECT_FALSE(ParseStepLine(line)) << line;
}

TEST_F(HostSteps, AreThoseOfTheWorkerAndOfItsWatchdog) {
    runs.OnThreadBegin(1, "CDriverInstallerWatchdog");
    Line(1, 10, ">GettingAdapterInfo. 10s max");
    Line(1, 11, "<GettingAdapterInfo");
    Line(1, 11, ">ThreadRunning. 3600s max");
    runs.OnThreadBegin(2, "CDriverInstallerThread");
    Line(2, 12, " >CopyingInfFiles. 600s max");
    Line(2, 12, "  >Inner. 5s max");
    Line(2, 13, "  <Inner");
    Line(2, 14, " <CopyingInfFiles");
    runs.OnThreadEnd(2, false);
    EXPECT_TRUE(runs.Current());
    runs.OnThreadEnd(1, false);
    EXPECT_FALSE(runs.Current());
    const std::vector<DriverRun> all = runs.All();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0].kind, DriverRun::Kind::Installation);
    ASSERT_EQ(all[0].steps.size(), 3U);
    EXPECT_EQ(all[0].steps[1].name, "CopyingInfFiles");
    EXPECT_EQ(all[0].steps[1].limit, 600U);
    EXPECT_EQ(all[0].steps[1].begin, 12);
    EXPECT_EQ(all[0].steps[1].end, 14);
    EXPECT_EQ(all[0].steps[1].depth, 0U);
    EXPECT_EQ(all[0].steps[2].depth, 1U);
    EXPECT_EQ(news, (std::vector<News>{News::RunBegins, News::StepBegins, News::StepEnds, News::StepBegins,
                                       News::StepBegins, News::StepEnds, News::StepEnds, News::RunEnds}));
}

TEST_F(HostSteps, IgnoreOtherThreads) {
    runs.OnThreadBegin(1, "CAnotherThread");
    Line(1, 1, ">Name. 60s max");
    Line(7, 1, ">Name. 60s max");
    runs.OnThreadEnd(1, false);
    EXPECT_TRUE(runs.All().empty());
    EXPECT_TRUE(news.empty());
}

TEST_F(HostSteps, TheInnermostStepOfAKilledWorkerIsToBlame) {
    runs.OnThreadBegin(1, "CDriverUninstallerThread");
    Line(1, 1, ">Outer. 60s max");
    Line(1, 2, ">Inner. 5s max");
    runs.OnThreadEnd(1, true);
    const DriverRun run = runs.All().at(0);
    EXPECT_EQ(run.kind, DriverRun::Kind::Removal);
    EXPECT_FALSE(run.steps.at(0).killed);
    EXPECT_TRUE(run.steps.at(1).killed);
    EXPECT_TRUE(run.steps.at(0).end && run.steps.at(1).end && run.end);
    EXPECT_EQ(news.at(news.size() - 2), News::StepKilled);
    EXPECT_EQ(news.back(), News::RunEnds);
}

TEST_F(HostSteps, AnUnloggedStepIsKnownFromTheEventThatNamesIt) {
    runs.OnThreadBegin(GetCurrentThreadId(), "CDriverInstallerWatchdog");
    runs.OnThreadBegin(2, "CDriverInstallerThread");
    Line(2, 1, ">RemovingInfFiles. 300s max");
    runs.OnThreadEnd(2, true);
    runs.OnAgentEvent(1004, "GettingNetworkConfigLock|the log");
    const DriverRun run = runs.All().at(0);
    EXPECT_EQ(run.failedStep, "GettingNetworkConfigLock");
    ASSERT_EQ(run.steps.size(), 2U);
    EXPECT_FALSE(run.steps[0].killed);
    EXPECT_TRUE(run.steps[1].killed);
    EXPECT_EQ(run.steps[1].name, "GettingNetworkConfigLock");
    EXPECT_EQ(run.steps[1].depth, 1U);
    EXPECT_EQ(run.steps[1].limit, 0U);
}

TEST_F(HostSteps, RecordWhatTheEventsSayAboutTheRun) {
    runs.OnThreadBegin(GetCurrentThreadId(), "CDriverInstallerWatchdog");
    Line(GetCurrentThreadId(), 1, ">FindingComponent. 15s max");
    runs.OnAgentEvent(3005, "INetCfg::FindComponent|E_FAIL");
    Line(GetCurrentThreadId(), 2, "<FindingComponent");
    Line(GetCurrentThreadId(), 2, ">InstallingDriver. 600s max");
    Line(GetCurrentThreadId(), 3, "<InstallingDriver");
    runs.OnAgentEvent(1004, "InstallingDriver|the log");
    runs.OnRebootNotification();
    runs.OnThreadEnd(GetCurrentThreadId(), false);
    runs.OnThreadBegin(GetCurrentThreadId(), "CDriverInstallerWatchdog");
    runs.OnAgentEvent(1007, "0.0.0.0|2.0.0.0|");
    const std::vector<DriverRun> all = runs.All();
    EXPECT_TRUE(all.at(0).rebootAsked && all.at(0).steps.at(0).failed && all.at(0).steps.at(1).failed);
    EXPECT_FALSE(all.at(0).succeeded);
    EXPECT_EQ(all.at(0).failedStep, "InstallingDriver");
    EXPECT_TRUE(all.at(1).succeeded);
    EXPECT_FALSE(all.at(1).rebootAsked);
}

TEST(StepStatus, ShowsTheInnermostStepWithItsTimeAndItsLimit) {
    DriverRun run{.kind = DriverRun::Kind::Installation, .begin = 100};
    EXPECT_EQ(StatusText(run, 101.25, 80), "installation, 1.2 s");
    run.steps.push_back({.name = "Outer", .limit = 60, .begin = 102});
    run.steps.push_back({.name = "Inner", .limit = 5, .begin = 103});
    run.steps.push_back({.name = "Done", .limit = 5, .begin = 103, .end = 104});
    EXPECT_EQ(StatusText(run, 106.5, 80), "installation, 6.5 s: Inner, 3.5 s of 5 s");
    EXPECT_EQ(StatusText(run, 106.5, 20), "installation, 6.5 s:");
}

TEST(StepNews, HasALineForEach) {
    const DriverStep step{.name = "FindingComponent", .depth = 1, .limit = 15, .begin = 7};
    const auto removal = DriverRun::Kind::Removal;
    EXPECT_EQ(NewsLine({News::RunBegins, removal, 5, 5, {}}), "step    removal begins");
    EXPECT_EQ(NewsLine({News::StepBegins, removal, 7, 7, step}), "step      >FindingComponent, 15 s at most");
    EXPECT_EQ(NewsLine({News::StepEnds, removal, 8.5, 7, step}), "step      <FindingComponent after 1.5 s");
    EXPECT_EQ(NewsLine({News::StepKilled, removal, 23, 7, step}),
              "step      !FindingComponent is given up after 16.0 s of 15 s");
    EXPECT_EQ(NewsLine({News::RunEnds, removal, 23, 5, {}}), "step    removal ends after 18.0 s");
    EXPECT_EQ(NewsLine({News::RunEnds, removal, 23, 5, {}, "removed"}), "step    removal ends after 18.0 s: removed");
}

TEST(HostProgram, ShowsTheStepsOfAHangingRemovalWhileItRuns) {
    const std::string script = R"(
        require "fc"
        host.machine.put_component { id = "qbimvta" }
        host.fault { call = "INetCfgClassSetup::DeInstall", nth = 1, hang = true, advance = 601 }
        local folder = host.machine.folders().program_files
        assert(not SLB.filter.UninstallDriver(host.dom(), folder, folder))
        io.stderr:write("the call has returned\n")
    )";
    const auto begin = std::chrono::steady_clock::now();
    HostRun run = RunScript(script, {L"--fast", L"1"});
    run.err = WithoutTimes(run.err);
    // After the leap of 601 seconds time is real, and a busy machine needs some.
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    ASSERT_EQ(run.exitCode, 0U) << run.err;
    std::size_t at = 0;
    for (const std::string &line :
         std::vector<std::string>{"step    removal begins\n", "step     >UninstallingDriver, 600 s at most\n",
                                  "step     !UninstallingDriver is given up after ", "step    removal ends after ",
                                  "the call has returned\n"}) {
        at = run.err.find(line, at);
        ASSERT_NE(at, std::string::npos) << line << "is missing in\n" << run.err;
        if (line.ends_with("after ")) {
            const double seconds = std::strtod(run.err.c_str() + at + line.size(), nullptr);
            EXPECT_GE(seconds, 600.0) << line;
            EXPECT_LE(seconds, 601.0 + took.count()) << line;
        }
    }
    const HostRun quiet = RunScript(script, {L"--fast", L"1", L"--quiet"});
    EXPECT_EQ(quiet.err, "the call has returned\n");
}

TEST(HostProgram, ShowsNoStepsIfNothingIsInstalled) {
    const HostRun run = RunScript("require 'fc' SLB.filter.UpdateConnMetrics()");
    EXPECT_FALSE(Mentions(run.err, "step")) << run.err;
}
