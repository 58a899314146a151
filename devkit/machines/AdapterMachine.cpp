#include "AdapterMachine.h"

#include <fstream>
#include <mutex>

#include "DriverFile.h"
#include "Failure.h"

namespace {

using std::filesystem::path;

std::string VersionText(const std::array<std::uint16_t, 4> &version) {
    std::string text;
    for (const std::uint16_t component : version)
        text += (text.empty() ? "" : ".") + std::to_string(component);
    return text;
}

}  // namespace

std::vector<std::string> InstallOutcome::EventTexts(int number) const {
    const std::string prefix = std::to_string(number) + "|";
    std::vector<std::string> texts;
    for (const std::string &event : events) {
        if (event.starts_with(prefix))
            texts.push_back(event.substr(prefix.size()));
    }
    return texts;
}

bool InstallOutcome::AskedForReboot() const {
    for (const VtaCore::Control::Notification &notification : notifications) {
        if (notification.kind == VtaCore::Control::Notification::Kind::Reboot)
            return true;
    }
    return false;
}

AdapterMachine::AdapterMachine() {
    Vti::Reset();
    VtaCore::Control::EnableTrace("NDIS", true);
    RemoveDrivers();
    PutAdapters();
    WriteDriverFiles();
    SetRunningVersion(std::nullopt);
    network().Use(
        [](Simulator::NetworkState &state) { state.installable.push_back({.component = {.id = L"qbimvta"}}); });
    network().OnMoment([this](const Simulator::NetworkMoment &moment) {
        FollowFilter(moment);
        if (onMoment)
            onMoment(moment);
    });
    simulation().GetSetup().onInstallSection = [this](const std::wstring &command) {
        if (command.starts_with(L"DefaultUninstall "))
            simulation().GetServices().Remove(L"qbimwfp");
        else
            simulation().GetServices().Put(L"qbimwfp", {.status = {SERVICE_STOPPED}});
    };
}

AdapterMachine::~AdapterMachine() {
    VtaCore::Control::EnableTrace("NDIS", false);
    Vti::Reset();
}

void AdapterMachine::PutAdapters() {
    network().Put({.id = L"ms_tcpip", .classGuid = GUID_DEVCLASS_NETTRANS});
    network().Put({.id = L"ms_tcpip6", .classGuid = GUID_DEVCLASS_NETTRANS});
    network().PutAdapter({.id = L"PCI\\VEN_8086&DEV_100E",
                          .bindName = L"{11111111-0000-0000-0000-000000000001}",
                          .pnpDevNodeId = kFirst,
                          .displayName = L"First adapter",
                          .mac = {0, 1, 2, 3, 4, 5},
                          .ip = "10.0.0.10",
                          .gateway = "10.0.0.1",
                          .frames = 1000});
    network().PutAdapter({.id = L"PCI\\VEN_10EC&DEV_8168",
                          .bindName = L"{22222222-0000-0000-0000-000000000002}",
                          .pnpDevNodeId = kSecond,
                          .displayName = L"Second adapter",
                          .mac = {0, 1, 2, 3, 4, 6},
                          .ip = "10.0.1.10",
                          .gateway = "10.0.1.1",
                          .frames = 2000});
    for (const wchar_t *node : {kFirst, kSecond}) {
        network().Bind(node, L"ms_tcpip");
        simulation().GetDevices().Put({.instanceId = node, .description = L"Network adapter"});
    }
}

/// The driver is loaded and unloaded with its component.
void AdapterMachine::FollowFilter(const Simulator::NetworkMoment &moment) {
    using What = Simulator::NetworkMoment::What;
    if (moment.component != L"qbimvta")
        return;
    if (moment.what == What::Installed && m_loadedByInstall)
        SetRunningVersion(m_loadedByInstall);
    else if (moment.what == What::Removed)
        SetRunningVersion(std::nullopt);
}

path AdapterMachine::NdisFolder() {
    return simulation().GetFolders().ProgramFiles() / L"ndis";
}

void AdapterMachine::WriteDriverFiles() {
    create_directories(NdisFolder());
    SetOurVersion(kOurVersion);
    for (const wchar_t *inf : {L"netqbimvta.inf", L"netqbimvtam.inf", L"netqbimvtap.inf"})
        std::ofstream(NdisFolder() / inf, std::ios::binary) << InfNaming("qbimvta", 10);
    std::ofstream(path(WfpFolder()) / L"netqbimwfp.inf", std::ios::binary) << InfNaming("qbimwfp", 10);
    lua_pushstring(lua, (NdisFolder().string() + "\\").c_str());
    lua_setglobal(lua, "ndis");
}

void AdapterMachine::SetOurVersion(const Version &version) {
    Simulator::WriteDriverFile(NdisFolder() / L"qbimvta.sys", version);
}

void AdapterMachine::SetRunningVersion(const std::optional<Version> &version) {
    const std::lock_guard lock(Vti::Lock());
    Vti::TheDriver().present = version.has_value();
    if (version)
        Vti::TheDriver().version = VersionText(*version);
}

void AdapterMachine::InstallOldDriver(const Version &version) {
    network().Put({.id = L"qbimvta"});
    for (const wchar_t *node : {kFirst, kSecond})
        network().Bind(node, L"qbimvta");
    simulation().GetServices().Put(L"qbimwfp", {.status = {SERVICE_RUNNING}});
    PutInf(L"oem1.inf", InfNaming("qbimvta", 10));
    PutInf(L"oem2.inf", InfNaming("qbimwfp", 10));
    Simulator::WriteDriverFile(simulation().GetFolders().System32() / L"drivers" / L"qbimvta.sys", version);
    SetRunningVersion(version);
}

bool AdapterMachine::IsBound(const std::wstring &node) {
    return network().Binding(node, L"qbimvta").value_or(false);
}

InstallOutcome AdapterMachine::Install() {
    return InstallWhile([] {});
}

InstallOutcome AdapterMachine::InstallWhile(const std::function<void()> &meanwhile, int objectsThatStay) {
    (void)TakeTracedMessages();
    const int objects = VtaCore::Control::LiveObjects();
    InstallOutcome installation;
    simulation().GetClock().SetFollower(GetCurrentThreadId());
    static_cast<Removal &>(installation) = CallWhile("SLB.filter.InstallOrUpdateDriver(dom, ndis, wfp)", meanwhile);
    AwaitThreads(objects + objectsThatStay);
    TakeRecords(installation);
    installation.traces = TakeTracedMessages("NDIS");
    return installation;
}

void AdapterMachine::AwaitThreads(int objects) {
    if (!threads.AwaitEnds(kPatienceMs))
        NoteFailure("threads of the module have not ended");
    if (!Await(kPatienceMs, [objects] { return VtaCore::Control::LiveObjects() == objects; }))
        NoteFailure("objects of the agent's library are left: " + std::to_string(VtaCore::Control::LiveObjects()) +
                    " instead of " + std::to_string(objects));
}
