#include "BindingsInTest.h"

#include "CallScope.h"
#include "DriverThreadProbe.h"

HINSTANCE moduleInstance = nullptr;

namespace {

template <class Call>
ThreadInTest CallInTest(VtaCore::CDom &dom, Call call) {
    {
        const Simulator::InsideSimulator inside;
        moduleInstance = GetModuleHandleW(L"fc.dll");  // its message table
    }
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
