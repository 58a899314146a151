// A driver thread's stack of steps. Compiled as a part of WindowsDriverInstaller.cpp.
#include "CDriverUninstallerThread.h"

#include <utility>

#include <wx/log.h>

#include "StartThread.h"
#include "WindowsDriverInstaller/reports/FailureReport.h"

namespace {

CDriverUninstallerThread::CDriverUninstallerThread(VtaCore::CDom *toDom, const wxString &toNdisDriverDir,
                                                   const wxString &toWfpDriverDir)
    : CRunnable(/*suspended=*/false, kAnyProcessor, /*detached=*/false),
      dom(toDom),
      stepFinished(CreateEventW(nullptr, FALSE, FALSE, nullptr)),
      ndisDriverDir(toNdisDriverDir.Clone()),
      wfpDriverDir(toWfpDriverDir.Clone()) {
    StartStep(ThreadRunning);
}

void CDriverUninstallerThread::OnExit() {
    EndStep(ThreadRunning);
    CRunnable::OnExit();
}

void CDriverUninstallerThread::StartStep(std::uint32_t step, std::uint32_t limitSeconds) {
    if (!IsSilentStep(step))
        DbgPrint(L">%s. %ds max", StepName(step), static_cast<int>(limitSeconds));
    auto record = std::make_unique<StepRecord>(StepRecord{limitSeconds, step, VtaCore::SystemTickCount()});
    const wxCriticalSectionLocker lock(stepLock);
    stepStack.push_back(std::move(record));
}

void CDriverUninstallerThread::EndStep(std::uint32_t step) {
    {
        const wxCriticalSectionLocker lock(stepLock);
        if (!stepStack.empty()) {
            const std::uint32_t top = stepStack.back()->step;
            if (top != step)  // compat 88: warns with the lock held, and pops the top step all the same
                wxLogWarning("Consistency check - we just completed %s but %s was on top of the step stack.",
                             StepName(step), StepName(top));
            stepStack.pop_back();
        }
    }
    // Outside the lock, so the watcher may have moved on when this is logged.
    if (!IsSilentStep(step))
        DbgPrint(L"<%s", StepName(step));
    (void)SetEvent(stepFinished.get());
}

std::uint32_t CDriverUninstallerThread::TopStep() {
    const wxCriticalSectionLocker lock(stepLock);
    return stepStack.empty() ? NoStep : stepStack.back()->step;
}

void CDriverUninstallerThread::NoteFailedStep() {
    std::uint32_t none = NoStep;
    (void)failedStep.compare_exchange_strong(none, TopStep());
}

void CDriverUninstallerThread::ReportFailure(unsigned long error, const wchar_t *call) {
    ::ReportFailure(*dom, error, call);
}

}  // namespace
