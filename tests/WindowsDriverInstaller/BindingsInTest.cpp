#include "BindingsInTest.h"

#include "CallScope.h"
#include "DriverThreadProbe.h"
#include "common/ModuleInstance.h"

namespace {

/// Gives access to private members: an explicit instantiation may name them.
template <auto extraLog, auto installFromInf>
struct PrivateMembers {
    friend wxString &ExtraLogOf(CDriverInstallerWatchdog &watchdog) { return watchdog.*extraLog; }
    friend HRESULT InstallFromInfBy(CDriverInstallerThread &thread, const wchar_t *folder) {
        return (thread.*installFromInf)(folder);
    }
};
wxString &ExtraLogOf(CDriverInstallerWatchdog &watchdog);
HRESULT InstallFromInfBy(CDriverInstallerThread &thread, const wchar_t *folder);
template struct PrivateMembers<&CDriverInstallerWatchdog::extraLog, &CDriverInstallerThread::InstallFromInf>;

void UseMessageTableOfModule() {
    const Simulator::InsideSimulator inside;
    moduleInstance = GetModuleHandleW(L"fc.dll");
}

template <class Call>
ThreadInTest CallInTest(VtaCore::CDom &dom, Call call) {
    UseMessageTableOfModule();
    CDriverInstallerThread thread(&dom, "C:\\ndis\\", "C:\\wfp\\", true, false, nullptr);
    const bool result = call(thread);
    return {result, thread.failedStep, thread.TopStep()};
}

}  // namespace

ThreadInTest GetTcpAdaptersInTest(VtaCore::CDom &dom, TcpAdapterList &adapters) {
    return CallInTest(dom, [&adapters](CDriverInstallerThread &thread) {
        thread.GetTcpAdapters(adapters);
        return true;
    });
}

ThreadInTest SetFilterBindingsInTest(VtaCore::CDom &dom, bool enable, const TcpAdapterList *adapters, bool useIpState) {
    return CallInTest(
        dom, [=](CDriverInstallerThread &thread) { return thread.SetFilterBindings(enable, adapters, useIpState); });
}

ThreadInTest UnbindUnsuitableAdaptersInTest(VtaCore::CDom &dom) {
    return CallInTest(dom, [](CDriverInstallerThread &thread) {
        thread.UnbindUnsuitableAdapters();
        return true;
    });
}

long InstallFromInfInTest(VtaCore::CDom &dom, const wxString &folder) {
    UseMessageTableOfModule();
    CDriverInstallerThread thread(&dom, folder, "C:\\wfp\\", true, false, nullptr);
    return InstallFromInfBy(thread, folder.wc_str());
}

bool InstallWithExtraLogInTest(VtaCore::CDom &dom, const wxString &ndisFolder, const wxString &wfpFolder,
                               const wxString &extraLog) {
    UseMessageTableOfModule();
    const auto status = std::make_shared<InstallStatus>();
    auto watchdog = std::make_unique<CDriverInstallerWatchdog>(&dom, status, ndisFolder, wfpFolder);
    ExtraLogOf(*watchdog) = extraLog;
    if (!MakeAndStartThread(*watchdog))
        return false;
    (void)watchdog.release();  // it deletes itself
    return FollowInstallOrUpdate(dom, *status);
}
