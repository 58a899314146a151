// A driver thread's way to the network configuration engine. Only WindowsDriverInstaller.cpp includes this.
#pragma once

#include <cwchar>
#include <memory>

#include <wrl/client.h>

#include "DriverThreadSteps.h"
#include "fc/fc.h"

// NOLINTBEGIN(misc-definitions-in-headers): the definitions are that one file's
namespace {

using Microsoft::WRL::ComPtr;

/// How this module names itself to others that want the write lock.
constexpr wchar_t kLockDescription[] = L"Quillon Vantry Agent Installer";
// compat 152: longer than the ten seconds of the step around the wait
constexpr DWORD kWriteLockWaitMs = 15'000;
/// The one entry of the module's message table.
constexpr unsigned kConfigurationLockedMessage = 0x80007530;

struct FreeTaskMemory {
    void operator()(void *memory) const { CoTaskMemFree(memory); }
};

/// A success without the object that it promises counts as a failure.
template <typename Interface>
HRESULT Obtained(HRESULT hr, const ComPtr<Interface> &object) {
    return SUCCEEDED(hr) && !object ? E_NOINTERFACE : hr;
}

HRESULT InitializeCom() {
    const HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED | COINIT_DISABLE_OLE1DDE);
    return hr == RPC_E_CHANGED_MODE ? CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED | COINIT_DISABLE_OLE1DDE) : hr;
}

HRESULT CDriverUninstallerThread::AcquireINetCfg(bool writeLock, INetCfg **result) {
    *result = nullptr;
    HRESULT hr = InitializeCom();
    if (FAILED(hr)) {
        ReportFailure(static_cast<unsigned long>(hr), L"CoInitializeEx");
        return hr;
    }
    StartStep(GettingInetCfg, 10);
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
    hr = Obtained(hr, netCfg);
    if (FAILED(hr)) {
        ReportFailure(static_cast<unsigned long>(hr), L"CoCreateInstance(CLSID_CNetCfg)");
        return hr;
    }
    ComPtr<INetCfgLock> lock;
    if (writeLock)
        hr = AcquireWriteLock(netCfg.Get(), &lock);
    if (FAILED(hr))
        return hr;
    hr = netCfg->Initialize(nullptr);
    if (FAILED(hr)) {
        ReportFailure(static_cast<unsigned long>(hr), L"INetCfg::Initialize");
        if (lock)
            ReleaseWriteLock(lock.Get());
        return hr;
    }
    (void)netCfg.CopyTo(result);
    return S_OK;  // whatever success it was: callers ask for this one
}

/// After a failure, which stays the result.
void CDriverUninstallerThread::ReleaseWriteLock(INetCfgLock *lock) {
    const HRESULT hr = lock->ReleaseWriteLock();
    if (FAILED(hr))
        ReportFailure(static_cast<unsigned long>(hr), L"INetCfgLock::ReleaseWriteLock");
}

HRESULT CDriverUninstallerThread::AcquireWriteLock(INetCfg *netCfg, INetCfgLock **result) {
    StartStep(GettingNetworkConfigLock, 30);
    ComPtr<INetCfgLock> lock;
    HRESULT hr = netCfg->QueryInterface(IID_INetCfgLock, &lock);
    hr = Obtained(hr, lock);
    if (FAILED(hr)) {
        ReportFailure(static_cast<unsigned long>(hr), L"INetCfg::QueryInterface(IID_INetCfgLock)");
        NoteFailedStep();
    } else {
        hr = TakeWriteLock(lock.Get());
    }
    EndStep(GettingNetworkConfigLock);
    if (SUCCEEDED(hr))
        *result = lock.Detach();
    return hr;
}

HRESULT CDriverUninstallerThread::TakeWriteLock(INetCfgLock *lock) {
    wchar_t *name = nullptr;
    HRESULT hr = lock->AcquireWriteLock(kWriteLockWaitMs, kLockDescription, &name);
    const std::unique_ptr<wchar_t, FreeTaskMemory> lockedBy(name);
    // compat 94: whoever gives the same description counts as this module
    if (hr == S_OK || (hr == S_FALSE && lockedBy && std::wcscmp(lockedBy.get(), kLockDescription) == 0))
        return S_OK;
    if (hr == S_FALSE) {
        const wxString text =
            VtaCore::LocalizedMsg(kConfigurationLockedMessage, 2048, moduleInstance, lockedBy ? lockedBy.get() : L"");
        VtaCore::ShowUserNotification(2, text, "");
        hr = NETCFG_E_NO_WRITE_LOCK;
    }
    ReportFailure(static_cast<unsigned long>(hr), L"INetCfgLock::AcquireWriteLock");
    NoteFailedStep();
    return hr;
}

HRESULT CDriverUninstallerThread::ReleaseINetCfg(bool writeLock, INetCfg *netCfg) {
    StartStep(ReleasingInetCfg, 10);
    HRESULT hr = netCfg->Uninitialize();
    if (FAILED(hr))
        ReportFailure(static_cast<unsigned long>(hr), L"INetCfg::Uninitialize");  // compat 95: keeps the lock
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
    hr = Obtained(hr, lock);
    if (FAILED(hr)) {
        ReportFailure(static_cast<unsigned long>(hr), L"INetCfg::QueryInterface(IID_INetCfgLock)");
        return hr;
    }
    return CallInStep(ReleasingNetworkConfigLock, 10, L"INetCfgLock::ReleaseWriteLock",
                      [&lock] { return lock->ReleaseWriteLock(); });
}

}  // namespace
// NOLINTEND(misc-definitions-in-headers)
