#include "StepsBench.h"

#include <cstdio>
#include <cstdlib>

#include "vta_core_control.h"

// The class lives in the unnamed namespace of this source.
#include "WindowsDriverInstaller/WindowsDriverInstaller.cpp"  // NOLINT(bugprone-suspicious-include): see above

HINSTANCE moduleInstance = nullptr;  // the module's; its message table is not used

namespace {

constexpr int kStepRounds = 51;
constexpr int kStepsPerRound = 1000;
constexpr int kLinesPerStep = 2;

/// Discards the lines.
class CountingLog : public wxLog {
public:
    CountingLog() : m_before(SetActiveTarget(this)) {}
    ~CountingLog() override { SetActiveTarget(m_before); }
    CountingLog(const CountingLog &) = delete;
    CountingLog &operator=(const CountingLog &) = delete;

    int lines = 0;

protected:
    void DoLogRecord(wxLogLevel, const wxString &, const wxLogRecordInfo &) override { ++lines; }

private:
    wxLog *m_before;
};

/// Never started: steps need no thread.
class SteppingThread : public CDriverUninstallerThread {
public:
    explicit SteppingThread(VtaCore::CDom *toDom) : CDriverUninstallerThread(toDom, "C:\\", "C:\\") {}

    void Step() {
        StartStep(UninstallingDriver);
        EndStep(UninstallingDriver);
    }
};

template <typename Step>
double TimeSteps(CountingLog &log, const Step &step) {
    log.lines = 0;
    const double start = Now();
    for (int i = 0; i < kStepsPerRound; ++i)
        step();
    const double time = Now() - start;
    if (log.lines != kLinesPerStep * kStepsPerRound) {
        (void)std::fprintf(stderr, "bench: %d steps log %d lines\n", kStepsPerRound, log.lines);
        std::exit(2);
    }
    return time;
}

/// The same two lines, written with wxWidgets in the simplest way.
void LogLinesOfStep() {
    wxLogMessage(" >%s. %ds max", StepName(UninstallingDriver), static_cast<int>(StepLimitSeconds(UninstallingDriver)));
    wxLogMessage(" <%s", StepName(UninstallingDriver));
}

}  // namespace

void BenchSteps(Report &report) {
    CountingLog log;
    VtaCore::Control::Dom dom;
    SteppingThread thread(&dom);
    const auto times = MedianTimes(kStepRounds, {[&] { return TimeSteps(log, [&] { thread.Step(); }); },
                                                 [&] { return TimeSteps(log, LogLinesOfStep); }});
    report.Add("a step of a driver thread with its two log lines, to the lines alone", times[0] / times[1],
               "time ratio");
    report.Add("a step of a driver thread with its two log lines", times[0] / kStepsPerRound * 1e6, "microseconds");
}
