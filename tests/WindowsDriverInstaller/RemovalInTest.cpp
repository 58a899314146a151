#include "RemovalInTest.h"

#include "CallScope.h"
#include "DriverThreadProbe.h"

HINSTANCE moduleInstance = nullptr;

ProbeResult RunRemovalInTest(VtaCore::CDom &dom, const wxString &wfpDriverDir) {
    {
        const Simulator::InsideSimulator inside;
        moduleInstance = GetModuleHandleW(L"fc.dll");  // its message table
    }
    Probe probe(dom, wfpDriverDir);
    const bool result = probe.UninstallDriver();
    return {result, probe.failedStep, probe.rebootRequired};
}
