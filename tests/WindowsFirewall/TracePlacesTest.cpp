// The function, the file and the line that each trace of the firewall names.

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "FirewallFixture.h"
#include "LogCollector.h"
#include "TracedPlaces.h"

namespace {

constexpr char kSwitchFile[] = "FirewallSwitch.cpp";
constexpr char kServiceFile[] = "FirewallService.cpp";
constexpr char kProfilesFile[] = "FirewallProfiles.cpp";
constexpr char kInitializeFile[] = "WindowsFirewallInitialize.cpp";
constexpr char kApplicationsFile[] = "FirewallApplications.cpp";

const std::vector<TracedPlace> kPlaces{
    {"DisableFirewall()", "WindowsFirewall::DisableFirewall", kSwitchFile},
    {"StartFirewallService returned false when disabling", "WindowsFirewall::DisableFirewall", kSwitchFile},
    {"Windows firewall(SharedService) is not enabled", "WindowsFirewall::DisableFirewall", kSwitchFile},
    {"get_FirewallEnabled(NET_FW_PROFILE2_DOMAIN) failed", "WindowsFirewall::DisableFirewall", kProfilesFile,
     "profile.readFailed"},
    {"fwPolicy2->get_FirewallEnabled NET_FW_PROFILE2_", "WindowsFirewall::DisableFirewall", kProfilesFile,
     "profile.read,"},
    {"get_FirewallEnabled failed", "WindowsFirewall::DisableFirewall", kProfilesFile},
    {"fwPolicy->get_FirewallEnabled returned", "WindowsFirewall::DisableFirewall", kProfilesFile},
    {"The windows firewall is enabled going to disable it", "WindowsFirewall::DisableFirewall", kSwitchFile},
    {"put_FirewallEnabled(NET_FW_PROFILE2_DOMAIN) false", "WindowsFirewall::DisableFirewall", kProfilesFile,
     "profile.turningOff"},
    {"put_FirewallEnabled(NET_FW_PROFILE2_PRIVATE) false", "WindowsFirewall::DisableFirewall", kProfilesFile,
     "profile.turningOff"},
    {"put_FirewallEnabled(NET_FW_PROFILE2_PUBLIC) false", "WindowsFirewall::DisableFirewall", kProfilesFile,
     "profile.turningOff"},
    {"put_FirewallEnabled false", "WindowsFirewall::DisableFirewall", kProfilesFile},
    {"Writing the registry key to flag", "WindowsFirewall::DisableFirewall", kSwitchFile},
    {"Error writing registry key.", "WindowsFirewall::DisableFirewall", kSwitchFile},
    {"CoInitializeEx failed", "WindowsFirewall::DisableFirewall", kSwitchFile, "InitializeFirewallCom("},
    {"CoInitializeEx failed", "WindowsFirewall::EnableFirewall", kSwitchFile, "InitializeFirewallCom("},
    {"CoInitializeEx failed", "WindowsFirewall::WindowsFirewallAddApp", kApplicationsFile, "InitializeFirewallCom("},
    {"CoInitializeEx failed", "WindowsFirewall::WindowsFirewallRemoveApp", kApplicationsFile, "InitializeFirewallCom("},
    {"CoCreateInstance(NetFwPolicy2) failed", "WindowsFirewall::WindowsFirewallInitialize", kInitializeFile},
    {"CoCreateInstance(NetFwMgr) failed", "WindowsFirewall::WindowsFirewallInitialize", kInitializeFile},
    {"get_LocalPolicy failed", "WindowsFirewall::WindowsFirewallInitialize", kInitializeFile},
    {"get_CurrentProfile failed", "WindowsFirewall::WindowsFirewallInitialize", kInitializeFile},
    {"WindowsFirewallInitialize failed", "WindowsFirewall::DisableFirewall", kProfilesFile},
    {"WindowsFirewallInitialize failed", "WindowsFirewall::EnableFirewall", kProfilesFile},
    {"WindowsFirewallInitialize failed", "WindowsFirewall::WindowsFirewallAddApp", kApplicationsFile},
    {"WindowsFirewallInitialize failed", "WindowsFirewall::WindowsFirewallRemoveApp", kApplicationsFile},
    {"EnableFirewall()", "WindowsFirewall::EnableFirewall", kSwitchFile},
    {"StartFirewallService returned false when enabling", "WindowsFirewall::EnableFirewall", kSwitchFile},
    {"Turning Windows Firewall back on", "WindowsFirewall::EnableFirewall", kSwitchFile},
    {"put_FirewallEnabled(NET_FW_PROFILE2_DOMAIN) true", "WindowsFirewall::EnableFirewall", kProfilesFile,
     "profile.turningOn"},
    {"put_FirewallEnabled(NET_FW_PROFILE2_PRIVATE) true", "WindowsFirewall::EnableFirewall", kProfilesFile,
     "profile.turningOn"},
    {"put_FirewallEnabled(NET_FW_PROFILE2_PUBLIC) true", "WindowsFirewall::EnableFirewall", kProfilesFile,
     "profile.turningOn"},
    {"put_FirewallEnabled(NET_FW_PROFILE2_DOMAIN) failed", "WindowsFirewall::EnableFirewall", kProfilesFile,
     "profile.writeFailed"},
    {"put_FirewallEnabled true", "WindowsFirewall::EnableFirewall", kProfilesFile},
    {"put_FirewallEnabled failed", "WindowsFirewall::EnableFirewall", kProfilesFile},
    {"RegDeleteValue('WindowsFirewallDisabledByInstaller') failed", "WindowsFirewall::EnableFirewall", kSwitchFile},
    {"OS is Vista or greater - no need to start", "WindowsFirewall::StartFirewallService", kServiceFile},
    {"Windows version is 5", "WindowsFirewall::StartFirewallService", kServiceFile, "Windows version is %d"},
    {"Starting 'SharedAccess' service", "WindowsFirewall::StartServiceW", kServiceFile, "Starting '%.64s' service"},
    {"Error opening service control manager", "WindowsFirewall::StartServiceW", kServiceFile},
    {"Error opening 'SharedAccess' service", "WindowsFirewall::StartServiceW", kServiceFile,
     "Error opening '%.64s' service"},
    {"Error querying 'SharedAccess' service", "WindowsFirewall::StartServiceW", kServiceFile, "kQueryFailed"},
    {"Error opening service control manager", "WindowsFirewall::StopService", kServiceFile},
    {"Error opening 'SharedAccess' service", "WindowsFirewall::StopService", kServiceFile,
     "Error opening '%.64s' service"},
    {"Error querying 'SharedAccess' service", "WindowsFirewall::StopService", kServiceFile, "kQueryFailed"},
    {"Service 'SharedAccess' doesn't exist", "WindowsFirewall::StartServiceW", kServiceFile, "withoutService"},
    {"Service 'SharedAccess' is disabled", "WindowsFirewall::StartServiceW", kServiceFile,
     "Service '%.64s' is disabled"},
    {"Error enabling 'SharedAccess' service", "WindowsFirewall::StartServiceW", kServiceFile,
     "Error enabling '%.64s' service"},
    {"Error starting 'SharedAccess' service after enabling it", "WindowsFirewall::StartServiceW", kServiceFile,
     "Error starting '%.64s' service after enabling it"},
    {"Error starting 'SharedAccess' service:", "WindowsFirewall::StartServiceW", kServiceFile,
     "Error starting '%.64s' service:"},
    {"Service 'SharedAccess' stopped with", "WindowsFirewall::StartServiceW", kServiceFile, "TraceServiceExitCodes("},
    {"Timed out waiting for service", "WindowsFirewall::StartServiceW", kServiceFile},
    {"Stopping 'SharedAccess' service", "WindowsFirewall::StopService", kServiceFile, "Stopping '%.64s' service"},
    {"Service 'SharedAccess' does not exist", "WindowsFirewall::StopService", kServiceFile, "withoutService"},
    {"Error stopping 'SharedAccess' service", "WindowsFirewall::StopService", kServiceFile,
     "Error stopping '%.64s' service"},
    {"Unable to stop 'SharedAccess' service", "WindowsFirewall::StopService", kServiceFile,
     "Unable to stop '%.64s' service"},
    {"WindowsFirewallAddApp called", "WindowsFirewall::WindowsFirewallAddApp", kApplicationsFile},
    {"WindowsFirewallRemoveApp called", "WindowsFirewall::WindowsFirewallRemoveApp", kApplicationsFile},
    {"WindowsFirewallAddApp failed", "WindowsFirewall::WindowsFirewallAddApp", kApplicationsFile},
    {"WindowsFirewallAddApp failed", "WindowsFirewall::WindowsFirewallRemoveApp", kApplicationsFile},
    {"get_AuthorizedApplications failed", "WindowsFirewall::WindowsFirewallAppIsEnabled", kApplicationsFile,
     "GetAuthorizedApplications("},
    {"SysAllocString failed", "WindowsFirewall::WindowsFirewallAppIsEnabled", kApplicationsFile,
     "MakeApplicationText("},
    {"get_AuthorizedApplications failed", "WindowsFirewall::DoWindowsFirewallAddApp", kApplicationsFile,
     "GetAuthorizedApplications("},
    {"SysAllocString failed", "WindowsFirewall::DoWindowsFirewallAddApp", kApplicationsFile, "MakeApplicationText("},
    {"get_AuthorizedApplications failed", "WindowsFirewall::DoWindowsFirewallRemoveApp", kApplicationsFile,
     "GetAuthorizedApplications("},
    {"SysAllocString failed", "WindowsFirewall::DoWindowsFirewallRemoveApp", kApplicationsFile, "MakeApplicationText("},
    {"get_Enabled failed", "WindowsFirewall::WindowsFirewallAppIsEnabled", kApplicationsFile},
    {"WindowsFirewallAppIsEnabled failed", "WindowsFirewall::DoWindowsFirewallAddApp", kApplicationsFile},
    {"CoCreateInstance failed", "WindowsFirewall::DoWindowsFirewallAddApp", kApplicationsFile},
    {"put_ProcessImageFileName failed", "WindowsFirewall::DoWindowsFirewallAddApp", kApplicationsFile},
    {"put_Name failed", "WindowsFirewall::DoWindowsFirewallAddApp", kApplicationsFile},
    {"Add failed", "WindowsFirewall::DoWindowsFirewallAddApp", kApplicationsFile},
    {"Authorized application", "WindowsFirewall::DoWindowsFirewallAddApp", kApplicationsFile},
    {"Remove failed", "WindowsFirewall::DoWindowsFirewallRemoveApp", kApplicationsFile},
};

class TracedFirewall : public FirewallFixture {
protected:
    /// Collects what calls of SLB.filter trace, while the n-th call of a function fails.
    void Trace(const std::string &call, const char *function = nullptr, unsigned nth = 1, DWORD code = kDenied) {
        if (function != nullptr)
            (void)faults().FailNth(function, nth, code);
        (void)lua.Eval("SLB.filter." + call);
        for (TracedLine &line : TakeTracedLines())
            m_lines.push_back(std::move(line));
        faults().Clear();
    }
    void TraceNewSystem() {
        for (const char *function :
             {static_cast<const char *>(nullptr), "CoInitializeEx", "CoCreateInstance", "INetFwMgr::get_LocalPolicy",
              "INetFwPolicy::get_CurrentProfile", "INetFwPolicy2::get_FirewallEnabled", "RegSetValueExW"}) {
            PutProfiles(7);
            Trace("DisableNativeFirewall()", function);
        }
        PutProfiles(7);
        Trace("DisableNativeFirewall()", "CoCreateInstance", 2);
        for (const char *function : {static_cast<const char *>(nullptr), "CoInitializeEx", "CoCreateInstance",
                                     "INetFwPolicy2::put_FirewallEnabled", "RegDeleteValueW"}) {
            PutFlag(MaskFlag(7));
            Trace("EnableNativeFirewall()", function);
        }
    }
    void TraceApplications() {
        const std::string add = R"(WindowsFirewallAddApp('C:\\a.exe', 'A'))";
        for (const char *function : {"CoInitializeEx", "CoCreateInstance", "INetFwProfile::get_AuthorizedApplications",
                                     "INetFwAuthorizedApplication::put_ProcessImageFileName",
                                     "INetFwAuthorizedApplication::put_Name", "INetFwAuthorizedApplications::Add"})
            Trace(add, function);
        Trace(add, "INetFwProfile::get_AuthorizedApplications", 2);
        Trace(add, "CoCreateInstance", 3);
        Trace("WindowsFirewallAddApp('', 'A')");
        Trace(R"(WindowsFirewallAddApp('C:\\a.exe', ''))");
        Trace(add);
        Trace(add, "INetFwAuthorizedApplication::get_Enabled");
        for (const char *function : {"CoInitializeEx", "CoCreateInstance", "INetFwProfile::get_AuthorizedApplications",
                                     "INetFwAuthorizedApplications::Remove"})
            Trace(R"(WindowsFirewallRemoveApp('C:\\a.exe'))", function);
        Trace("WindowsFirewallRemoveApp('')");
    }
    void TraceOldSystem() {
        MakeSystemOld();
        Reload();
        PutCurrentProfile(VARIANT_TRUE);
        for (const char *function : {"OpenSCManagerW", "INetFwProfile::get_FirewallEnabled"})
            Trace("DisableNativeFirewall()", function);
        Trace("DisableNativeFirewall()");
        PutService(m_stopped);
        Trace("DisableNativeFirewall()");
        TraceStarts();
        TraceStops();
        Restore({.status = {SERVICE_RUNNING}}, "INetFwProfile::put_FirewallEnabled");
    }
    void TraceStarts() {
        for (const char *function : {"OpenServiceW", "QueryServiceStatus"})
            Restore(m_stopped, function);
        Restore(m_stopped, "OpenServiceW", 1, ERROR_SERVICE_DOES_NOT_EXIST);
        Restore({.status = {SERVICE_STOPPED}, .startType = SERVICE_DISABLED});
        Restore({.status = {SERVICE_STOPPED}, .startType = SERVICE_DISABLED, .configError = ERROR_ACCESS_DENIED});
        Restore({.status = {SERVICE_STOPPED}, .startType = SERVICE_DISABLED}, "StartServiceW", 2);
        Restore({.status = {SERVICE_STOPPED}, .startError = ERROR_ACCESS_DENIED});
        Restore({.status = {SERVICE_STOPPED}, .starting = {{SERVICE_STOPPED}}});
        Restore({.status = {SERVICE_PAUSED}});
    }
    void TraceStops() {
        for (const char *function : {"OpenSCManagerW", "OpenServiceW"})
            Restore(m_stopped, function, 2);
        Restore(m_stopped, "OpenServiceW", 2, ERROR_SERVICE_DOES_NOT_EXIST);
        for (const unsigned query : {3U, 4U})
            Restore(m_stopped, "QueryServiceStatus", query);
        Restore({.status = {SERVICE_STOPPED}, .controlError = ERROR_ACCESS_DENIED});
        Restore({.status = {SERVICE_STOPPED}, .stopping = {{SERVICE_STOP_PENDING}}});
    }
    void Restore(const Simulator::Service &service, const char *function = nullptr, unsigned nth = 1,
                 DWORD code = kDenied) {
        PutService(service);
        PutFlag(MaskFlag(1));
        Trace("EnableNativeFirewall()", function, nth, code);
    }

    [[nodiscard]] const std::vector<TracedLine> &TracedLines() const { return m_lines; }

private:
    const Simulator::Service m_stopped{.status = {SERVICE_STOPPED}};
    std::vector<TracedLine> m_lines;
};

TEST_F(TracedFirewall, NamesTheFunctionTheFileAndTheLineOfEachMessage) {
    TraceNewSystem();
    TraceApplications();
    TraceOldSystem();
    ExpectOnlyTraced(TracedLines(), kPlaces);
}

}  // namespace
