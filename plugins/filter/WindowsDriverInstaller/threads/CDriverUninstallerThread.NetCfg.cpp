// A driver thread's access to the network configuration engine. Compiled as a part of WindowsDriverInstaller.cpp.
#include "CDriverUninstallerThread.h"

#include <cwchar>

#include "WindowsDriverInstaller/adapters/TaskText.h"
#include "common/RequireObject.h"
#include "common/SharedObjects.h"

namespace {

/// The name under which other programs see this module hold the write lock.
constexpr wchar_t kLockDescription[] = L"Quillon Vantry Agent Installer";
// compat 152: longer than the ten seconds of the step around the wait
constexpr DWORD kWriteLockWaitMs = 15'000;
/// The only entry in the module's message table.
constexpr unsigned kConfigurationLockedMessage = 0x80007530;

HRESULT InitializeComForNetCfg() {
    const HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED | COINIT_DISABLE_OLE1DDE);
    return hr == RPC_E_CHANGED_MODE ? CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED | COINIT_DISABLE_OLE1DDE) : hr;
}

HRESULT CDriverUninstallerThread::AcquireINetCfg(bool writeLock, INetCfg **result) {
    *result = nullptr;
    HRESULT hr = InitializeComForNetCfg();
    if (FAILED(hr)) {
        ReportFailure(hr, L"CoInitializeEx");
        return hr;
    }
    StartStep(GettingInetCfg);
    hr = OpenINetCfg(writeLock, result);
    if (FAILED(hr)) {
        CoUninitialize();
        NoteFailedStep();
    }
    EndStep(GettingInetCfg);
    return hr;  // on success COM stays up until ReleaseINetCfg
}

HRESULT CDriverUninstallerThread::OpenINetCfg(bool writeLock, INetCfg **result) {
    ComPtr<INetCfg> netCfg;
    HRESULT hr = CoCreateInstance(CLSID_CNetCfg, nullptr, CLSCTX_INPROC_SERVER, IID_INetCfg, &netCfg);
    hr = RequireObject(hr, netCfg);
    if (FAILED(hr)) {
        ReportFailure(hr, L"CoCreateInstance(CLSID_CNetCfg)");
        return hr;
    }
    ComPtr<INetCfgLock> lock;
    if (writeLock)
        hr = AcquireWriteLock(netCfg.Get(), &lock);
    if (FAILED(hr))
        return hr;
    hr = netCfg->Initialize(nullptr);
    if (FAILED(hr)) {
        ReportFailure(hr, L"INetCfg::Initialize");
        if (lock)
            ReleaseWriteLock(lock.Get());
        return hr;
    }
    (void)netCfg.CopyTo(result);
    return S_OK;  // whichever success it was: callers check for this one
}

/// For use after a failure, which stays the result.
void CDriverUninstallerThread::ReleaseWriteLock(INetCfgLock *lock) {
    const HRESULT hr = lock->ReleaseWriteLock();
    if (FAILED(hr))
        ReportFailure(hr, L"INetCfgLock::ReleaseWriteLock");
}

HRESULT CDriverUninstallerThread::AcquireWriteLock(INetCfg *netCfg, INetCfgLock **result) {
    StartStep(GettingNetworkConfigLock);
    ComPtr<INetCfgLock> lock;
    HRESULT hr = netCfg->QueryInterface(IID_INetCfgLock, &lock);
    hr = RequireObject(hr, lock);
    if (FAILED(hr)) {
        ReportFailure(hr, L"INetCfg::QueryInterface(IID_INetCfgLock)");
        NoteFailedStep();
    } else {
        hr = TakeNetCfgWriteLock(lock.Get());
    }
    EndStep(GettingNetworkConfigLock);
    if (SUCCEEDED(hr))
        *result = lock.Detach();
    return hr;
}

HRESULT CDriverUninstallerThread::TakeNetCfgWriteLock(INetCfgLock *lock) {
    wchar_t *name = nullptr;
    HRESULT hr = lock->AcquireWriteLock(kWriteLockWaitMs, kLockDescription, &name);
    const TaskText lockedBy(name);
    // compat 94: whoever gives the same description counts as this module
    if (hr == S_OK || (hr == S_FALSE && lockedBy && std::wcscmp(lockedBy.get(), kLockDescription) == 0))
        return S_OK;
    if (hr == S_FALSE) {
        const wxString text =
            VtaCore::LocalizedMsg(kConfigurationLockedMessage, 2048, moduleInstance, lockedBy ? lockedBy.get() : L"");
        VtaCore::ShowUserNotification(2, text, "");
        hr = NETCFG_E_NO_WRITE_LOCK;
    }
    ReportFailure(hr, L"INetCfgLock::AcquireWriteLock");
    NoteFailedStep();
    return hr;
}

HRESULT CDriverUninstallerThread::ReleaseINetCfg(bool writeLock, INetCfg *netCfg) {
    StartStep(ReleasingInetCfg);
    HRESULT hr = netCfg->Uninitialize();
    if (FAILED(hr))
        ReportFailure(hr, L"INetCfg::Uninitialize");  // compat 95: keeps the lock
    else if (writeLock)
        hr = ReleaseWriteLock(netCfg);
    netCfg->Release();
    CoUninitialize();
    if (FAILED(hr))
        NoteFailedStep();
    EndStep(ReleasingInetCfg);
    return hr;
}

HRESULT CDriverUninstallerThread::ReleaseWriteLock(INetCfg *netCfg) {
    ComPtr<INetCfgLock> lock;
    HRESULT hr = netCfg->QueryInterface(IID_INetCfgLock, &lock);
    hr = RequireObject(hr, lock);
    if (FAILED(hr)) {
        ReportFailure(hr, L"INetCfg::QueryInterface(IID_INetCfgLock)");
        return hr;
    }
    return CallInStep(ReleasingNetworkConfigLock, L"INetCfgLock::ReleaseWriteLock",
                      [&lock] { return lock->ReleaseWriteLock(); });
}

}  // namespace
