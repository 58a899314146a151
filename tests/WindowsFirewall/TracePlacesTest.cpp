// The function, the file and the line that each trace of the firewall names.

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "FirewallFixture.h"
#include "LogCollector.h"

namespace {

/// A message, by its beginning, and the names that it must have whole. Messages of one table share a line.
struct TracedPlace {
    const char *message;
    const char *function;
    const char *file;
};

constexpr char kSwitchFile[] = "FirewallSwitch.cpp";
constexpr char kServiceFile[] = "FirewallService.cpp";
constexpr char kProfilesFile[] = "FirewallProfiles.cpp";
constexpr char kInitializeFile[] = "WindowsFirewallInitialize.cpp";
constexpr char kApplicationsFile[] = "FirewallApplications.cpp";

const std::vector<TracedPlace> kPlaces{
    {"DisableFirewall()", "WindowsFirewall::DisableFirewall", kSwitchFile},
    {"fwPolicy2->get_FirewallEnabled NET_FW_PROFILE2_", "WindowsFirewall::DisableFirewall", kProfilesFile},
    {"The windows firewall is enabled going to disable it", "WindowsFirewall::DisableFirewall", kSwitchFile},
    {"put_FirewallEnabled(NET_FW_PROFILE2_DOMAIN) false", "WindowsFirewall::DisableFirewall", kProfilesFile},
    {"Writing the registry key to flag", "WindowsFirewall::DisableFirewall", kSwitchFile},
    {"Error writing registry key.", "WindowsFirewall::DisableFirewall", kSwitchFile},
    {"CoInitializeEx failed", "WindowsFirewall::DisableFirewall", kSwitchFile},
    {"CoCreateInstance(NetFwPolicy2) failed", "WindowsFirewall::WindowsFirewallInitialize", kInitializeFile},
    {"CoCreateInstance(NetFwMgr) failed", "WindowsFirewall::WindowsFirewallInitialize", kInitializeFile},
    {"get_LocalPolicy failed", "WindowsFirewall::WindowsFirewallInitialize", kInitializeFile},
    {"get_CurrentProfile failed", "WindowsFirewall::WindowsFirewallInitialize", kInitializeFile},
    {"WindowsFirewallInitialize failed", "WindowsFirewall::DisableFirewall", kProfilesFile},
    {"EnableFirewall()", "WindowsFirewall::EnableFirewall", kSwitchFile},
    {"Turning Windows Firewall back on", "WindowsFirewall::EnableFirewall", kSwitchFile},
    {"put_FirewallEnabled(NET_FW_PROFILE2_DOMAIN) failed", "WindowsFirewall::EnableFirewall", kProfilesFile},
    {"RegDeleteValue('WindowsFirewallDisabledByInstaller') failed", "WindowsFirewall::EnableFirewall", kSwitchFile},
    {"OS is Vista or greater - no need to start", "WindowsFirewall::StartFirewallService", kServiceFile},
    {"Windows version is 5", "WindowsFirewall::StartFirewallService", kServiceFile},
    {"Starting 'SharedAccess' service", "WindowsFirewall::StartServiceW", kServiceFile},
    {"Service 'SharedAccess' is disabled", "WindowsFirewall::StartServiceW", kServiceFile},
    {"Error enabling 'SharedAccess' service", "WindowsFirewall::StartServiceW", kServiceFile},
    {"Service 'SharedAccess' stopped with", "WindowsFirewall::StartServiceW", kServiceFile},
    {"Timed out waiting for service", "WindowsFirewall::StartServiceW", kServiceFile},
    {"StartFirewallService returned false when enabling", "WindowsFirewall::EnableFirewall", kSwitchFile},
    {"fwPolicy->get_FirewallEnabled returned", "WindowsFirewall::DisableFirewall", kProfilesFile},
    {"put_FirewallEnabled failed", "WindowsFirewall::EnableFirewall", kProfilesFile},
    {"Stopping 'SharedAccess' service", "WindowsFirewall::StopService", kServiceFile},
    {"Error stopping 'SharedAccess' service", "WindowsFirewall::StopService", kServiceFile},
    {"Unable to stop 'SharedAccess' service", "WindowsFirewall::StopService", kServiceFile},
    {"WindowsFirewallAddApp called", "WindowsFirewall::WindowsFirewallAddApp", kApplicationsFile},
    {"get_Enabled failed", "WindowsFirewall::WindowsFirewallAppIsEnabled", kApplicationsFile},
    {"WindowsFirewallAppIsEnabled failed", "WindowsFirewall::DoWindowsFirewallAddApp", kApplicationsFile},
    {"put_ProcessImageFileName failed", "WindowsFirewall::DoWindowsFirewallAddApp", kApplicationsFile},
    {"put_Name failed", "WindowsFirewall::DoWindowsFirewallAddApp", kApplicationsFile},
    {"Add failed", "WindowsFirewall::DoWindowsFirewallAddApp", kApplicationsFile},
    {"Authorized application", "WindowsFirewall::DoWindowsFirewallAddApp", kApplicationsFile},
    {"WindowsFirewallRemoveApp called", "WindowsFirewall::WindowsFirewallRemoveApp", kApplicationsFile},
    {"Remove failed", "WindowsFirewall::DoWindowsFirewallRemoveApp", kApplicationsFile},
};

class TracedFirewall : public FirewallFixture {
protected:
    /// Collects what calls of SLB.filter trace, while the n-th call of a function fails.
    void Trace(const std::string &call, const char *function = nullptr, unsigned nth = 1) {
        if (function != nullptr)
            (void)faults().FailNth(function, nth, kDenied);
        (void)lua.Eval("SLB.filter." + call);
        for (TracedLine &line : TakeTracedLines())
            m_lines.push_back(std::move(line));
        faults().Clear();
    }
    void TraceNewSystem() {
        for (const char *function :
             {static_cast<const char *>(nullptr), "CoInitializeEx", "CoCreateInstance", "RegSetValueExW"}) {
            PutProfiles(7);
            Trace("DisableNativeFirewall()", function);
        }
        PutProfiles(7);
        Trace("DisableNativeFirewall()", "CoCreateInstance", 2);
        Trace("DisableNativeFirewall()", "INetFwMgr::get_LocalPolicy");
        Trace("DisableNativeFirewall()", "INetFwPolicy::get_CurrentProfile");
        for (const char *function :
             {static_cast<const char *>(nullptr), "INetFwPolicy2::put_FirewallEnabled", "RegDeleteValueW"}) {
            PutFlag(MaskFlag(7));
            Trace("EnableNativeFirewall()", function);
        }
    }
    void TraceApplications() {
        const std::string add = R"(WindowsFirewallAddApp('C:\\a.exe', 'A'))";
        for (const char *method : {"INetFwAuthorizedApplication::put_ProcessImageFileName",
                                   "INetFwAuthorizedApplication::put_Name", "INetFwAuthorizedApplications::Add"})
            Trace(add, method);
        Trace(add);
        Trace(add, "INetFwAuthorizedApplication::get_Enabled");
        Trace(R"(WindowsFirewallRemoveApp('C:\\a.exe'))", "INetFwAuthorizedApplications::Remove");
    }
    void TraceOldSystem() {
        MakeSystemOld();
        Reload();
        PutCurrentProfile(VARIANT_TRUE);
        Trace("DisableNativeFirewall()");
        Restore({.status = {SERVICE_STOPPED}, .startType = SERVICE_DISABLED});
        Restore({.status = {SERVICE_STOPPED}, .startType = SERVICE_DISABLED, .configError = ERROR_ACCESS_DENIED});
        Restore({.status = {SERVICE_STOPPED}, .starting = {{SERVICE_STOPPED}}});
        Restore({.status = {SERVICE_PAUSED}});
        Restore({.status = {SERVICE_STOPPED}, .controlError = ERROR_ACCESS_DENIED});
        Restore({.status = {SERVICE_STOPPED}, .stopping = {{SERVICE_STOP_PENDING}}});
        Restore({.status = {SERVICE_RUNNING}}, "INetFwProfile::put_FirewallEnabled");
    }
    void Restore(const Simulator::Service &service, const char *function = nullptr) {
        PutService(service);
        PutFlag(MaskFlag(1));
        Trace("EnableNativeFirewall()", function);
    }

    [[nodiscard]] const std::vector<TracedLine> &TracedLines() const { return m_lines; }

private:
    std::vector<TracedLine> m_lines;
};

TEST_F(TracedFirewall, NamesTheFunctionTheFileAndALineOfItsOwnForEachMessage) {
    TraceNewSystem();
    TraceApplications();
    TraceOldSystem();
    std::map<std::pair<std::string, int>, std::string> messages;  // by place
    for (const TracedPlace &place : kPlaces) {
        std::set<int> lines;
        for (const TracedLine &line : TracedLines()) {
            if (!line.message.starts_with(place.message))
                continue;
            EXPECT_EQ(line.function, place.function) << line.message;
            EXPECT_EQ(line.file, place.file) << line.message;
            lines.insert(line.line);
        }
        ASSERT_EQ(lines.size(), 1U) << place.message;
        EXPECT_GT(*lines.begin(), 0) << place.message;
        const auto [known, isNew] = messages.try_emplace({place.file, *lines.begin()}, place.message);
        EXPECT_TRUE(isNew) << place.message << " has the line of " << known->second;
    }
}

}  // namespace
