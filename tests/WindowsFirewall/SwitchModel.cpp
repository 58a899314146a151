#include "SwitchModel.h"

#include <array>
#include <cstdio>
#include <cstring>

namespace {

std::string Padded(DWORD code) {
    std::array<char, 20> text{};
    std::snprintf(text.data(), text.size(), "0x%08lx", code);
    return text.data();
}

/// Eight characters with the 0x, which a zero lacks.
std::string Sharp(DWORD code) {
    std::array<char, 20> text{};
    std::snprintf(text.data(), text.size(), "%#08lx", code);
    return text.data();
}

constexpr std::array<const char *, 3> kProfileNames{"NET_FW_PROFILE2_DOMAIN", "NET_FW_PROFILE2_PRIVATE",
                                                    "NET_FW_PROFILE2_PUBLIC"};

std::array<VARIANT_BOOL *, 3> ProfilesOf(Simulator::FirewallState &state) {
    return {&state.domainProfile, &state.privateProfile, &state.publicProfile};
}

}  // namespace

bool SwitchModel::Fails(const std::string &function) {
    if (function != fault.function || ++calls != fault.nth)
        return false;
    hit = true;
    return true;
}

void SwitchModel::Close(const std::string &function, const char *kind) {
    if (Fails(function))
        ++left[kind];
}

void SwitchModel::SayCode(const std::string &line, DWORD code) {
    Say(line + " failed: " + Padded(code));
}

bool SwitchModel::FailsSaying(const std::string &function, const std::string &line) {
    const bool fails = Fails(function);
    if (fails)
        SayCode(line, fault.code);
    return fails;
}

void SwitchModel::FindVersion() {
    if (versionKnown)
        return;
    versionKnown = true;
    if (!Fails("GetVersionExW"))
        major = world.osMajor;
}

bool SwitchModel::BeginCom() {
    if (!Fails("CoInitializeEx") || static_cast<HRESULT>(fault.code) == RPC_E_CHANGED_MODE)
        return true;
    SayCode("CoInitializeEx", fault.code);
    return false;
}

bool SwitchModel::MakeObjects() {
    const bool made = !(IsNew() && FailsSaying("CoCreateInstance", "CoCreateInstance(NetFwPolicy2)")) &&
                      !FailsSaying("CoCreateInstance", "CoCreateInstance(NetFwMgr)") &&
                      !FailsSaying("INetFwMgr::get_LocalPolicy", "get_LocalPolicy") &&
                      !FailsSaying("INetFwPolicy::get_CurrentProfile", "get_CurrentProfile");
    if (!made)
        SayCode("WindowsFirewallInitialize", fault.code);
    return made;
}

bool SwitchModel::ReadSwitches(DWORD &mask) {
    mask = 0;
    if (!IsNew()) {
        if (FailsSaying("INetFwProfile::get_FirewallEnabled", "get_FirewallEnabled"))
            return false;
        Say("fwPolicy->get_FirewallEnabled returned " + std::to_string(world.firewall.currentProfile));
        mask = world.firewall.currentProfile == 0 ? 0 : 1;
        return true;
    }
    const auto profiles = ProfilesOf(world.firewall);
    for (unsigned i = 0; i < 3; ++i) {
        const std::string name = kProfileNames.at(i);
        if (FailsSaying("INetFwPolicy2::get_FirewallEnabled", "get_FirewallEnabled(" + name + ")"))
            return false;
        Say("fwPolicy2->get_FirewallEnabled " + name + " returned " + std::to_string(*profiles.at(i)));
        if (*profiles.at(i) != 0)
            mask += 1U << i;
    }
    return true;
}

bool SwitchModel::WriteSwitches(DWORD mask, bool on) {
    const std::string word = on ? " true" : " false";
    const VARIANT_BOOL value = on ? -1 : 0;
    if (!IsNew()) {
        Say("put_FirewallEnabled" + word);
        if (FailsSaying("INetFwProfile::put_FirewallEnabled", "put_FirewallEnabled"))
            return false;
        world.firewall.currentProfile = value;
        return true;
    }
    const auto profiles = ProfilesOf(world.firewall);
    for (unsigned i = 0; i < 3; ++i) {
        if ((mask >> i) % 2 == 0)
            continue;
        const std::string put = std::string("put_FirewallEnabled(") + kProfileNames.at(i) + ")";
        Say(put + word);
        if (FailsSaying("INetFwPolicy2::put_FirewallEnabled", put))
            return false;
        *profiles.at(i) = value;
    }
    return true;
}

void SwitchModel::Remember(DWORD mask) {
    if (Fails("RegCreateKeyW"))
        return;
    world.hasKey = true;
    Say("Writing the registry key to flag that vantry turned off the windows firewall " + std::to_string(mask));
    if (Fails("RegSetValueExW"))
        Say("Error writing registry key.");
    else
        world.flag = MaskFlag(mask);
    Close("RegCloseKey", "key");
}

void SwitchModel::Forget() {
    if (!Fails("RegDeleteValueW"))
        world.flag.reset();
    else if (fault.code != ERROR_FILE_NOT_FOUND)
        SayCode("RegDeleteValue('WindowsFirewallDisabledByInstaller')", fault.code);
}

bool SwitchModel::QueryFlag(DWORD &type, DWORD &mask) {
    if (Fails("RegQueryValueExW") || !world.flag || world.flag->bytes.size() > 4)
        return false;
    type = world.flag->type;
    mask = 0;
    std::memcpy(&mask, world.flag->bytes.data(), world.flag->bytes.size());
    return true;
}

void SwitchModel::TurnOff() {
    Say("DisableFirewall()");
    FindVersion();
    const Looked service = LookAtService(false);
    if (service == Looked::Failed)
        return Say("StartFirewallService returned false when disabling windows firewall");
    if (service == Looked::Stopped)
        return Say("Windows firewall(SharedService) is not enabled");
    if (!BeginCom())
        return;
    DWORD mask = 0;
    if (MakeObjects() && ReadSwitches(mask) && mask != 0) {
        Say("The windows firewall is enabled going to disable it");
        if (WriteSwitches(mask, false))
            Remember(mask);
    }
    EndCom();
}

void SwitchModel::TurnOn() {
    Say("EnableFirewall()");
    FindVersion();
    if (Fails("RegOpenKeyW") || !world.hasKey)
        return;
    DWORD type = 0;
    DWORD mask = 0;
    if (!QueryFlag(type, mask)) {
        Forget();
        return Close("RegCloseKey", "key");
    }
    const Looked service = LookAtService(true);
    if (service == Looked::Failed) {
        Say("StartFirewallService returned false when enabling windows firewall");
        ++left["key"];
        return;
    }
    if (BeginCom()) {
        bool restored = MakeObjects();
        if (restored && type == REG_DWORD && mask != 0) {
            Say("Turning Windows Firewall back on, previous Setting was " + std::to_string(static_cast<int>(mask)));
            restored = WriteSwitches(mask, true);
        }
        if (restored)
            Forget();
        EndCom();
    }
    Close("RegCloseKey", "key");
    if (service == Looked::Stopped)
        StopService();
}

// The service. What the model calls `service` is the result of these calls in the service manager.

void SwitchModel::SayService(const std::string &what, DWORD code) {
    Say(what + ": " + Sharp(code));
}

void SwitchModel::CloseService() {
    Close("CloseServiceHandle", "service handle");
    Close("CloseServiceHandle", "service handle");
}

bool SwitchModel::Query(DWORD &state) {
    if (Fails("QueryServiceStatus")) {
        SayService("Error querying 'SharedAccess' service", fault.code);
        return false;
    }
    if (!world.service->coming.empty()) {
        world.service->status = world.service->coming.front();
        world.service->coming.erase(world.service->coming.begin());
    }
    state = world.service->status.state;
    return true;
}

SwitchModel::Looked SwitchModel::LookAtService(bool start) {
    if (IsNew()) {
        Say(kNoStart);
        return Looked::Runs;
    }
    Say("Windows version is " + std::to_string(major) + ", which is less than Vista, attempting to start service");
    Say(kStarting);
    if (Fails("OpenSCManagerW")) {
        SayService("Error opening service control manager", fault.code);
        return Looked::Failed;
    }
    const bool cannotOpen = Fails("OpenServiceW");
    if (world.service && !cannotOpen)
        return PollService(start);
    const DWORD error = cannotOpen ? fault.code : ERROR_SERVICE_DOES_NOT_EXIST;
    Close("CloseServiceHandle", "service handle");
    if (error == ERROR_SERVICE_DOES_NOT_EXIST) {
        Say("Service 'SharedAccess' doesn't exist. Continuing without trying to start it.");
        return Looked::Runs;
    }
    SayService("Error opening 'SharedAccess' service", error);
    return Looked::Failed;
}

SwitchModel::Looked SwitchModel::PollService(bool start) {
    Looked answer = Looked::Runs;
    for (int polls = 600; polls != 0; --polls) {
        DWORD state = 0;
        if (!Query(state)) {
            answer = Looked::Failed;
            break;
        }
        if (state == SERVICE_RUNNING)
            break;
        if (polls == 1) {
            Say("Timed out waiting for service 'SharedAccess' to enter the 'running' state");
            answer = Looked::Failed;
        }
        if (state != SERVICE_STOPPED)
            continue;
        if (!start) {
            left["service handle"] += 2;
            return Looked::Stopped;
        }
        const Simulator::ServiceStatus &status = world.service->status;
        if (answer == Looked::Stopped)
            Say("Service 'SharedAccess' stopped with Windows error code " + Sharp(status.exitCode) +
                ", service-specific code " + Sharp(status.specificExitCode));
        if (answer == Looked::Stopped || !StartService()) {
            answer = Looked::Failed;
            break;
        }
        answer = Looked::Stopped;  // before the call
    }
    CloseService();
    return answer;
}

bool SwitchModel::CallStart(DWORD &error) {
    error = ERROR_SUCCESS;
    if (Fails("StartServiceW"))
        error = fault.code;
    else if (world.service->startError != ERROR_SUCCESS)
        error = world.service->startError;
    else if (world.service->startType == SERVICE_DISABLED)
        error = ERROR_SERVICE_DISABLED;
    if (error != ERROR_SUCCESS)
        return false;
    world.service->status = {SERVICE_START_PENDING};
    world.service->coming = world.service->starting;
    return true;
}

bool SwitchModel::CallChange(DWORD startType, DWORD &error) {
    error = Fails("ChangeServiceConfigW") ? fault.code : world.service->configError;
    if (error == ERROR_SUCCESS)
        world.service->startType = startType;
    return error == ERROR_SUCCESS;
}

bool SwitchModel::StartService() {
    DWORD error = 0;
    if (CallStart(error))
        return true;
    if (error == ERROR_SERVICE_DISABLED)
        return StartDisabledService();
    SayService("Error starting 'SharedAccess' service", error);
    return false;
}

bool SwitchModel::StartDisabledService() {
    Say("Service 'SharedAccess' is disabled - attempting to enable it.");
    DWORD error = 0;
    DWORD ignored = 0;
    if (!CallChange(SERVICE_DEMAND_START, error)) {
        SayService("Error enabling 'SharedAccess' service", error);
        return false;
    }
    const bool started = CallStart(error);
    (void)CallChange(SERVICE_DISABLED, ignored);
    if (!started)
        SayService("Error starting 'SharedAccess' service after enabling it", error);
    return started;
}

void SwitchModel::StopService() {
    Say(kStopping);
    if (Fails("OpenSCManagerW"))
        return SayService("Error opening service control manager", fault.code);
    if (!Fails("OpenServiceW"))
        return StopOpened();
    Close("CloseServiceHandle", "service handle");
    if (fault.code == ERROR_SERVICE_DOES_NOT_EXIST)
        Say("Service 'SharedAccess' does not exist - no need to stop it.");
    else
        SayService("Error opening 'SharedAccess' service", fault.code);
}

void SwitchModel::StopOpened() {
    DWORD state = 0;
    if (!Query(state))
        return CloseService();
    if (state == SERVICE_STOPPED) {
        left["service handle"] += 2;
        return;
    }
    if (state != SERVICE_STOP_PENDING) {
        const DWORD error = Fails("ControlService") ? fault.code : world.service->controlError;
        if (error != ERROR_SUCCESS) {
            SayService("Error stopping 'SharedAccess' service", error);
            return CloseService();
        }
        world.service->status = {SERVICE_STOP_PENDING};
        world.service->coming = world.service->stopping;
    }
    for (int polls = 0; polls < 60; ++polls) {
        if (!Query(state) || state == SERVICE_STOPPED)
            return CloseService();
    }
    Say("Unable to stop 'SharedAccess' service");
    CloseService();
}
