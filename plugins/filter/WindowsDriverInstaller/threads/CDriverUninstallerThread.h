// The thread that removes the drivers, in named steps with time limits that another thread watches. The classes of the
// driver threads belong to WindowsDriverInstaller.cpp: only it and the sources that it consists of include this.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include <windows.h>
#include <netcfgx.h>
#include <wrl/client.h>
#include <wx/string.h>
#include <wx/thread.h>

#include "Steps.h"
#include "ThreadEnd.h"
#include "WindowsDriverInstaller/cleanup/InfFolders.h"
#include "common/Unique.h"
#include "common/Wide.h"
#include "vta_core.h"

// NOLINTBEGIN(misc-definitions-in-headers): the definitions are that one file's
namespace {

using Microsoft::WRL::ComPtr;

/// The filter driver's network component.
constexpr wchar_t kFilterComponent[] = L"qbimvta";

/// A running step.
struct StepRecord {
    std::uint32_t limitSeconds;
    std::uint32_t step;
    std::uint32_t startTick;  ///< Milliseconds of VtaCore::SystemTickCount; differences are taken in 32 bits.
};

/// setupapi's SetupUninstallOEMInfW, which not every system has.
using UninstallOemInf = BOOL(WINAPI *)(PCWSTR fileName, DWORD flags, PVOID reserved);

class NetCfgSession;

/// Two threads meet here: the worker, which runs the steps, and the watcher, which calls WaitForStepToFinish in a loop
/// and kills the worker when a step overruns. A killed worker leaves what it held: COM objects, the write lock of the
/// network configuration, libraries.
class CDriverUninstallerThread : public VtaCore::CRunnable {
public:
    /// @param dom            must outlive the object.
    /// @param ndisDriverDir  folder of the filter driver's files, ending in a separator; read by the installer
    /// only.
    /// @param wfpDriverDir   folder of the callout driver's files, ending in a separator.
    CDriverUninstallerThread(VtaCore::CDom *toDom, const wxString &toNdisDriverDir, const wxString &toWfpDriverDir);
    /// compat 87: leaves `stepFinished` open; each object of this very class costs one event handle
    ~CDriverUninstallerThread() override;

    /// Watcher: waits until a step ends or another one is on top, or until the limit of the one on top has passed.
    /// @return false when the top step has overrun or the wait failed; otherwise call it again.
    bool WaitForStepToFinish();
    /// Watcher: whether the top step has overrun, or the last wait has failed.
    bool CannotWaitForStep();
    /// The step on top of the stack, or NoStep. Any thread.
    std::uint32_t TopStep();
    /// Held by a watcher that kills the worker, so that the worker doesn't hold it.
    wxCriticalSection &StepLock();
    /// Tells whether the thread has ended.
    ThreadEnd &End();
    /// Writes a line to the thread's log, indented by the depth of the step stack. Any thread.
    /// @param format  follows the rules of a wide printf.
    void DbgPrint(const wchar_t *format, ...);

protected:
    void OnExit() override;

public:
    const char *Name() const override;

protected:
    void Run() override;
    /// Writes a line of DbgPrint. A subclass may send the log elsewhere.
    /// @param format  begins with the indentation.
    virtual void DbgPrintV(const wchar_t *format, va_list arguments);

    /// Begins a step with its limit from the table.
    void StartStep(InstallerStep step);
    void StartStep(std::uint32_t step, std::uint32_t limitSeconds);
    /// Ends the step on top; logs a warning if that is not `step`.
    void EndStep(std::uint32_t step);
    /// Remembers the step on top as the one that failed, unless another failed before. Call it before the step ends.
    void NoteFailedStep();
    /// Reports a failure of the system or of COM as an agent event.
    /// @param error  Windows error code or HRESULT.
    void ReportFailure(unsigned long error, const wchar_t *call);
    void ReportFailure(HRESULT hr, const wchar_t *call);
    /// Makes a call in a step of its own; reports and notes a failure. @return the call's result.
    template <typename Call>
    HRESULT CallInStep(InstallerStep step, const wchar_t *name, Call call);

    /// Opens the network configuration, and COM on this thread. After a success, call ReleaseINetCfg.
    /// @param writeLock  take its write lock, too. The user is told which other program holds it.
    HRESULT AcquireINetCfg(bool writeLock, INetCfg **result);
    /// @param writeLock  as passed to AcquireINetCfg.
    HRESULT ReleaseINetCfg(bool writeLock, INetCfg *netCfg);

    /// Removes the drivers. @return true when nothing that counts failed.
    bool UninstallDriver();
    /// @param notInstalled  set to whether there was no such component, which is no failure.
    HRESULT UninstallComponent(const wchar_t *componentId, bool *notInstalled);
    /// @return S_FALSE when the component is absent.
    HRESULT RemoveComponent(INetCfg *netCfg, const wchar_t *componentId);
    /// @return S_OK when present, S_FALSE when absent.
    HRESULT IsFilterComponentPresent();
    /// Removes orphaned miniport devices, as far as possible.
    HRESULT CleanUpOrphans();

    /// Removes the system's copies of the drivers' INF files.
    /// @param uninstallOemInf  null if the system has none.
    /// @return S_OK, NETCFG_S_REBOOT if a file can be deleted only at the next boot, or why the system folder wasn't
    /// found.
    HRESULT RemoveOemInfFiles(UninstallOemInf uninstallOemInf);
    bool UninstallWFPCallout();
    bool UninstallWFPCalloutWithInstallHinfSection();
    bool UninstallWFPCalloutWithSC();
    /// Runs a section of the callout's INF file through setupapi.
    /// @param commandStart  setupapi's command before the file's path: section and mode.
    /// @return whether it was run. compat 122: setupapi does not report the section's result
    bool RunCalloutInfSection(const wxString &commandStart);
    /// Deletes the enumeration key of a miniport device that nothing else could remove.
    void cleanup_registry();

public:
    // The watcher reads these once the worker has stopped, or has been left alone.
    std::atomic<bool> rebootRequired{false};
    std::atomic<bool> succeeded{false};  ///< The result of Run.

protected:
    VtaCore::CDom *dom;

    UniqueHandle stepFinished;  ///< Auto-reset event; see the destructor.

public:
    std::atomic<std::uint32_t> failedStep{NoStep};  ///< The first step that failed.

protected:
    wxString ndisDriverDir;
    wxString wfpDriverDir;

private:
    friend class NetCfgSession;

    /// Call it with the lock held and a step on the stack. @return milliseconds until the top step's limit.
    DWORD RestOfTopStep() const;
    bool HasTopStepOverrun();
    HRESULT OpenINetCfg(bool writeLock, INetCfg **result);
    HRESULT AcquireWriteLock(INetCfg *netCfg, INetCfgLock **result);
    HRESULT TakeNetCfgWriteLock(INetCfgLock *lock);
    void ReleaseWriteLock(INetCfgLock *lock);
    HRESULT ReleaseWriteLock(INetCfg *netCfg);
    void RemoveWfpCallout();
    void UninstallInf(UninstallOemInf uninstallOemInf, const wchar_t *name);
    bool RemoveInfByHand(const InfFolders &folders, const wchar_t *name);
    bool RemoveInfWithExtension(std::wstring path, const wchar_t *extension);

    std::deque<std::unique_ptr<StepRecord>> stepStack;
    /// Guards only the stack. Held briefly, except while the watcher sleeps on an empty stack or kills the worker.
    wxCriticalSection stepLock;
    bool waitFailed = false;  ///< Of the watcher's last wait.
    ThreadEnd end;
};

template <typename Call>
HRESULT CDriverUninstallerThread::CallInStep(InstallerStep step, const wchar_t *name, Call call) {
    StartStep(step);
    const HRESULT hr = call();
    if (FAILED(hr)) {
        ReportFailure(hr, name);
        NoteFailedStep();
    }
    EndStep(step);
    return hr;
}

}  // namespace
// NOLINTEND(misc-definitions-in-headers)
