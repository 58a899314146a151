// The steps of a driver thread: its stack of steps, its log, and its watch. Only WindowsDriverInstaller.cpp includes
// this.
#pragma once

#include <algorithm>
#include <utility>

#include <wx/log.h>

#include "DriverUninstallerThread.h"
#include "FailureReport.h"

// NOLINTBEGIN(misc-definitions-in-headers): the definitions are that one file's
namespace {

/// An argument of DbgPrint; valid for as long as the text.
const wchar_t *Wide(const wxString &text) {
    return text.wc_str();
}

CDriverUninstallerThread::CDriverUninstallerThread(VtaCore::CDom *toDom, const wxString &toNdisDriverDir,
                                                   const wxString &toWfpDriverDir)
    : CRunnable(false, -1, false),
      dom(toDom),
      stepFinished(CreateEventW(nullptr, FALSE, FALSE, nullptr)),
      ndisDriverDir(toNdisDriverDir.Clone()),
      wfpDriverDir(toWfpDriverDir.Clone()) {
    CDriverUninstallerThread::StartStep(ThreadRunning, 3600);
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
    // Behind the lock, so the watcher may have moved on when this is logged.
    if (!IsSilentStep(step))
        DbgPrint(L"<%s", StepName(step));
    (void)SetEvent(stepFinished);
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

template <typename Call>
HRESULT CDriverUninstallerThread::CallInStep(std::uint32_t step, std::uint32_t limitSeconds, const wchar_t *name,
                                             Call call) {
    StartStep(step, limitSeconds);
    const HRESULT hr = call();
    if (FAILED(hr)) {
        ReportFailure(static_cast<unsigned long>(hr), name);
        NoteFailedStep();
    }
    EndStep(step);
    return hr;
}

bool CDriverUninstallerThread::WaitForStepToFinish() {
    // A step that begins signals nothing, so the watcher must not wait for long on what it saw beneath.
    constexpr DWORD pollMs = 1'000;
    waitFailed = false;
    const StepRecord *watched = nullptr;
    for (;;) {
        DWORD timeout = pollMs;
        {
            const wxCriticalSectionLocker lock(stepLock);
            if (stepStack.empty()) {
                wxThread::Sleep(100);  // compat 89: with the lock held; the worker's next step waits
                return true;
            }
            const StepRecord *const top = stepStack.back().get();
            if (watched != nullptr && top != watched)
                return true;
            watched = top;
            timeout = std::min(timeout, RestOfTopStep());
        }
        // The end of a step between the poll and the wait leaves the event set; two ends may be one wake-up.
        switch (WaitForSingleObject(stepFinished, timeout)) {
            case WAIT_OBJECT_0:
            case WAIT_ABANDONED:
                return true;
            case WAIT_TIMEOUT:
                if (HasTopStepOverrun())
                    return false;
                break;
            default:
                wxLogSysError("CDriverUninstallerThread::WaitForStepToFinish() - WaitForSingleObject() failed:");
                waitFailed = true;
                return false;
        }
    }
}

/// Only the top step is watched. The clock of those beneath runs on all the same.
DWORD CDriverUninstallerThread::RestOfTopStep() const {
    const StepRecord &top = *stepStack.back();
    const std::uint32_t limit = top.limitSeconds * 1000;
    const std::uint32_t waited = VtaCore::SystemTickCount() - top.startTick;
    return waited > limit ? 0 : limit - waited;
}

bool CDriverUninstallerThread::HasTopStepOverrun() {
    const wxCriticalSectionLocker lock(stepLock);
    return !stepStack.empty() && RestOfTopStep() == 0;
}

bool CDriverUninstallerThread::CannotBeWaitedFor() {
    return waitFailed || HasTopStepOverrun();
}

void CDriverUninstallerThread::DbgPrint(const wchar_t *format, ...) {
    wxString indented;
    {
        const wxCriticalSectionLocker lock(stepLock);
        indented = wxString::Format("%*s", static_cast<int>(stepStack.size()), "");
    }
    indented += format;
    va_list arguments;
    va_start(arguments, format);
    DbgPrintV(indented.wc_str(), arguments);
    va_end(arguments);
}

void CDriverUninstallerThread::DbgPrintV(const wchar_t *format, va_list arguments) {
    wxLogMessage("%s", wxString::FormatV(format, arguments));
}

}  // namespace
// NOLINTEND(misc-definitions-in-headers)
