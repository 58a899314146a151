// The thread that removes the drivers, in named steps with time limits that another thread watches. Only
// WindowsDriverInstaller.cpp includes this: the classes of the driver threads are its own.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include <windows.h>
#include <netcfgx.h>
#include <wx/string.h>
#include <wx/thread.h>

#include "InstallerSteps.h"
#include "ThreadEnd.h"
#include "vta_core.h"

// NOLINTBEGIN(misc-definitions-in-headers): the definitions are that one file's
namespace {

/// The filter driver's network component.
constexpr wchar_t kFilterComponent[] = L"qbimvta";

/// A step that runs.
struct StepRecord {
    std::uint32_t limitSeconds;
    std::uint32_t step;
    std::uint32_t startTick;  ///< Milliseconds of VtaCore::SystemTickCount; differences are taken in 32 bits.
};

/// The system's folders of INF files and of their catalogues, each with a backslash behind it.
struct InfFolders {
    std::wstring inf;
    std::wstring catalogs;
};

/// setupapi's SetupUninstallOEMInfW, which not every system has.
using UninstallOemInf = BOOL(WINAPI *)(PCWSTR fileName, DWORD flags, PVOID reserved);

/// Two threads meet here: the worker, which runs the steps, and the watcher, which calls WaitForStepToFinish in a loop
/// and kills the worker when a step overruns. A killed worker leaves what it held: COM objects, the write lock of the
/// network configuration, libraries.
class CDriverUninstallerThread : public VtaCore::CRunnable {
public:
    /// @param dom            must outlive the object.
    /// @param ndisDriverDir  folder of the filter driver's files, with a separator behind it; read by the installer
    /// only.
    /// @param wfpDriverDir   folder of the callout driver's files, with a separator behind it.
    CDriverUninstallerThread(VtaCore::CDom *toDom, const wxString &toNdisDriverDir, const wxString &toWfpDriverDir);
    /// compat 87: leaves `stepFinished` open; each object of this very class costs one event handle
    ~CDriverUninstallerThread() override = default;

    /// Watcher: waits until a step ends or another one is on top, or until the limit of the one on top has passed.
    /// @return false when the top step has overrun or the wait failed; otherwise it is to be called again.
    bool WaitForStepToFinish();
    /// Watcher: whether the top step has overrun by now, or the last wait has failed.
    bool CannotBeWaitedFor();
    /// The step on top of the stack, NoStep where there is none. Any thread.
    std::uint32_t TopStep();
    /// Held by a watcher that kills the worker, so that the worker doesn't hold it.
    wxCriticalSection &StepLock() { return stepLock; }
    /// What tells whether the thread has ended.
    ThreadEnd &End() { return end; }
    /// Writes a line to the thread's log, indented by the depth of the step stack. Any thread.
    /// @param format  follows the rules of a wide printf.
    void DbgPrint(const wchar_t *format, ...);

protected:
    void OnExit() override;

public:
    const char *Name() const override { return "CDriverUninstallerThread"; }

protected:
    void Run() override;
    /// Writes a line of DbgPrint. A subclass may send the log elsewhere.
    /// @param format  begins with the indentation.
    virtual void DbgPrintV(const wchar_t *format, va_list arguments);

    void StartStep(std::uint32_t step, std::uint32_t limitSeconds);
    /// Ends the step on top, whichever that is; a warning is logged if it is not `step`.
    void EndStep(std::uint32_t step);
    /// Keeps the step on top as the one that failed, unless one failed before. Called while the step is on the stack.
    void NoteFailedStep();
    /// Reports a failure of the system or of COM as an agent event.
    /// @param error  code of Windows or HRESULT.
    void ReportFailure(unsigned long error, const wchar_t *call);
    /// A call in a step of its own; a failure is reported and noted. @return its result.
    template <typename Call>
    HRESULT CallInStep(std::uint32_t step, std::uint32_t limitSeconds, const wchar_t *name, Call call);

    /// Opens the network configuration, and COM on this thread. A success is matched by ReleaseINetCfg.
    /// @param writeLock  take its write lock, too; a foreign holder is named to the user.
    HRESULT AcquireINetCfg(bool writeLock, INetCfg **result);
    /// @param writeLock  as it was at AcquireINetCfg.
    HRESULT ReleaseINetCfg(bool writeLock, INetCfg *netCfg);

    /// The removal. @return true when nothing that counts failed.
    bool UninstallDriver();
    /// @param notInstalled  set to whether there was no such component, which is no failure.
    HRESULT UninstallComponent(const wchar_t *componentId, bool *notInstalled);
    /// @return S_FALSE when the component is absent.
    HRESULT RemoveComponent(INetCfg *netCfg, const wchar_t *componentId);
    /// @return S_OK when present, S_FALSE when absent.
    HRESULT IsFilterComponentPresent();
    /// Removes miniport devices that were left behind, as far as that goes.
    HRESULT CleanUpOrphans();

    /// Removes the INF files of the drivers that the system copied.
    /// @param uninstallOemInf  null where the system has none.
    /// @return S_OK, NETCFG_S_REBOOT if a file can only go at the next boot, or why the system folder wasn't found.
    HRESULT RemoveOemInfFiles(UninstallOemInf uninstallOemInf);
    bool UninstallWFPCallout();
    bool UninstallWFPCalloutWithInstallHinfSection();
    bool UninstallWFPCalloutWithSC();
    /// Runs a section of the callout's INF file through setupapi.
    /// @param commandStart  what setupapi is told before the file's path: section and mode.
    /// @return whether it was run. compat 122: setupapi does not report the section's result
    bool RunWfpInfSection(const wxString &commandStart);
    /// Deletes the enumeration key of a miniport device that nothing else could remove.
    void cleanup_registry();

public:
    // The watcher reads these once the worker has stopped, or has been left alone.
    std::atomic<bool> rebootRequired{false};
    std::atomic<bool> succeeded{false};  ///< The result of Run.

protected:
    VtaCore::CDom *dom;

    HANDLE stepFinished;  ///< Auto-reset event; see the destructor.

public:
    std::atomic<std::uint32_t> failedStep{NoStep};  ///< The first step that failed.

protected:
    wxString ndisDriverDir;
    wxString wfpDriverDir;

private:
    /// Of a stack that is not empty, with its lock held. @return milliseconds until the limit of the step on top.
    DWORD RestOfTopStep() const;
    bool HasTopStepOverrun();
    HRESULT OpenINetCfg(bool writeLock, INetCfg **result);
    HRESULT AcquireWriteLock(INetCfg *netCfg, INetCfgLock **result);
    HRESULT TakeWriteLock(INetCfgLock *lock);
    void ReleaseWriteLock(INetCfgLock *lock);
    HRESULT ReleaseWriteLock(INetCfg *netCfg);
    void RemoveWfpCallout();
    void UninstallInf(UninstallOemInf uninstallOemInf, const wchar_t *name);
    void RemoveInfByHand(const InfFolders &folders, const wchar_t *name, HRESULT &status);
    void RemoveWithExtension(std::wstring path, const wchar_t *extension, HRESULT &status);

    std::deque<std::unique_ptr<StepRecord>> stepStack;
    /// Guards the stack alone. Held for a moment, but for the watcher's sleep with an empty stack, and while it kills
    /// the worker.
    wxCriticalSection stepLock;
    bool waitFailed = false;  ///< The watcher's: its last wait.
    ThreadEnd end;
};

}  // namespace
// NOLINTEND(misc-definitions-in-headers)
