#include "InstallRules.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <initializer_list>
#include <optional>
#include <string_view>

#include <netcfgx.h>

#include "Leftovers.h"

namespace {

using Part = FaultPlace::Part;

constexpr std::size_t kAdapters = 3;
constexpr char kUnknownStep[] = "<UnknownStep>";

/// What a session read of an adapter.
struct ReadAdapter {
    std::size_t number = 0;  ///< From 0.
    bool node = true;        ///< Its name for bindings is known,
    bool name = true;        ///< and its name for the device.
    bool mac = true;
    bool ip = false;      ///< Bound to TCP/IP,
    bool filter = false;  ///< and to the filter.
    bool online = true;
    bool address = false;
    bool gateway = false;
};
using ReadAdapters = std::vector<ReadAdapter>;
/// The wanted state of each adapter's binding; empty: leave it.
using WantedBindings = std::array<std::optional<bool>, kAdapters>;

std::string HexCode(DWORD code) {
    char text[16];
    std::snprintf(text, sizeof text, code == 0 ? "0" : "%#lx", static_cast<unsigned long>(code));
    return text;
}

bool IsNegative(DWORD code) {
    return FAILED(static_cast<HRESULT>(code));
}

/// What reports call a function in these parts of an installation.
struct ReportRule {
    std::string_view function;
    std::vector<Part> parts;
    const char *name;
};

const std::vector<ReportRule> &ReportRules() {
    using enum FaultPlace::Part;
    static const std::vector<Part> sessions{Uninstallation, Presence, Installation, Records, Bindings};
    static const std::vector<ReportRule> rules{
        {"CoInitializeEx", sessions, "CoInitializeEx"},
        {"CoCreateInstance", sessions, "CoCreateInstance(CLSID_CNetCfg)"},
        {"INetCfg::QueryInterface", sessions, "INetCfg::QueryInterface(IID_INetCfgLock)"},
        {"INetCfgLock::AcquireWriteLock", sessions, "INetCfgLock::AcquireWriteLock"},
        {"INetCfg::Initialize", sessions, "INetCfg::Initialize"},
        {"INetCfg::Uninitialize", sessions, "INetCfg::Uninitialize"},
        {"INetCfgLock::ReleaseWriteLock", sessions, "INetCfgLock::ReleaseWriteLock"},
        {"INetCfg::FindComponent", {Uninstallation, Presence}, "INetCfg::FindComponent"},
        {"INetCfgComponent::GetClassGuid", {Uninstallation}, "INetCfgComponent::GetClassGuid"},
        {"INetCfg::QueryNetCfgClass", {Uninstallation}, "INetCfg::QueryNetCfgClass"},
        {"INetCfgClass::QueryInterface", {Uninstallation}, "INetCfgClass::QueryInterface(IID_INetCfgClassSetup)"},
        {"INetCfgClassSetup::DeInstall", {Uninstallation}, "INetCfgClassSetup::DeInstall"},
        {"INetCfg::Apply", {Uninstallation, Installation}, "INetCfg::Apply"},
        {"INetCfg::QueryNetCfgClass",
         {Installation},
         "INetCfg::QueryNetCfgClass({4D36E974-E325-11CE-BFC1-08002BE10318})"},
        {"INetCfgClassSetup::Install", {Installation}, "INetCfgClassSetup::Install()"},
        {"GetWindowsDirectoryW", {Installation}, "GetWindowsDirectory()"},
        {"INetCfgBindingPath::Enable", {Bindings}, "INetCfgBindingInterface::Enable()"},
        {"INetCfg::Apply", {Bindings}, "INetCfg::Apply()"},
        {"GetAdaptersInfo", {Records}, "GetAdaptersInfo()"},
        {"GetIpNetTable", {Network}, "GetIpNetTable"},
        {"SHGetFolderPathW", {Decision}, "SHGetFolderPath(CSIDL_SYSTEM)"},
        {"SetupDiGetClassDevsW", {Orphans, Restart}, "SetupDiGetClassDevs"},
        {"SetupDiEnumDeviceInfo", {Orphans}, "SetupDiEnumDeviceInfo"},
        {"SetupDiGetDeviceInstanceIdW", {Orphans}, "SetupDiGetDeviceInstanceId"},
        {"SetupDiGetDeviceRegistryPropertyW", {Orphans}, "SetupDiGetDeviceRegistryProperty"},
    };
    return rules;
}

bool GotWorse(const ReadAdapter &before, const ReadAdapter &now) {
    return (before.online && !now.online) || (before.address && !now.address) || (before.gateway && !now.gateway);
}

class Rules {
public:
    Rules(Scenario scenario, const InstallFault &fault, const InstallFolders &folders)
        : m_scenario(scenario), m_fault(fault), m_folders(folders) {}

    InstallResult Apply();

private:
    // The fault
    [[nodiscard]] bool In(Part part, unsigned turn) const;
    [[nodiscard]] bool Is(std::initializer_list<std::string_view> functions) const;
    [[nodiscard]] bool IsNth(std::string_view function, unsigned ordinal) const;
    [[nodiscard]] bool StopsAcquiring() const;
    [[nodiscard]] bool IsQueryForLock(bool first) const;
    [[nodiscard]] bool KeepsLock() const;
    [[nodiscard]] const char *StepOfFault() const;
    bool Meet(Part part, unsigned turn);
    [[nodiscard]] bool IsFailure() const;
    [[nodiscard]] std::string WhatIsReported() const;
    [[nodiscard]] std::string ReportOfCopy() const;
    void Leave();

    // The installation
    void PutMachine();
    bool Decide();
    void Install();
    bool Work();
    bool Remove(unsigned turn);
    bool InstallNew();
    bool CopyInfs();
    void InstallCallout();
    bool InstallFilter();
    void PutComponent();
    void WriteValues();
    void BindAsBefore(const ReadAdapters &before);
    void UnbindUnsuitable();
    void Tell(bool succeeded);
    void CheckNetwork(const ReadAdapters &before);
    void Restart();
    bool TurnsHealthy(ReadAdapters &known);

    ReadAdapters ReadAll();
    void SpoilAll(ReadAdapters &adapters) const;
    void SpoilOne(ReadAdapters &adapters) const;
    static WantedBindings ByRecords(const ReadAdapters &adapters, bool useIp);
    bool Bind(const WantedBindings &wanted);
    [[nodiscard]] bool Reaches(std::size_t number) const;
    [[nodiscard]] static unsigned FilterPath(std::size_t number) { return number < 2 ? 2 : 1; }

    const Scenario m_scenario;
    const InstallFault m_fault;
    const InstallFolders m_folders;
    InstallResult m;
    std::array<std::optional<bool>, kAdapters> m_bound;
    std::string m_installedVersion;
    std::string m_failedStep = kUnknownStep;
    bool m_rebootRequired = false;
    unsigned m_reads = 0;
    unsigned m_binds = 0;
};

bool Rules::In(Part part, unsigned turn) const {
    return m_fault.place != nullptr && m_fault.place->part == part && m_fault.place->turn == turn;
}

bool Rules::Is(std::initializer_list<std::string_view> functions) const {
    return m_fault.place != nullptr &&
           std::find(functions.begin(), functions.end(), m_fault.place->function) != functions.end();
}

bool Rules::IsNth(std::string_view function, unsigned ordinal) const {
    return Is({function}) && m_fault.place->ordinal == ordinal;
}

/// Whether the session with the fault fails as a whole.
bool Rules::StopsAcquiring() const {
    if (Is({"CoInitializeEx"}))
        return m_fault.code != static_cast<DWORD>(RPC_E_CHANGED_MODE);
    return Is({"CoCreateInstance", "INetCfgLock::AcquireWriteLock", "INetCfg::Initialize"}) || IsQueryForLock(true);
}

/// Each session with the write lock queries for its interface at its beginning and at its end.
bool Rules::IsQueryForLock(bool first) const {
    return Is({"INetCfg::QueryInterface"}) && (m_fault.place->adapter == 0 && m_fault.place->ordinal == 1) == first;
}

bool Rules::KeepsLock() const {
    return Is({"INetCfg::Uninitialize", "INetCfgLock::ReleaseWriteLock"}) || IsQueryForLock(false);
}

/// The one on top when the failure is recorded.
const char *Rules::StepOfFault() const {
    static const std::map<std::string, const char *> steps{
        {"CoCreateInstance", "GettingInetCfg"},
        {"INetCfg::QueryInterface", "GettingNetworkConfigLock"},
        {"INetCfgLock::AcquireWriteLock", "GettingNetworkConfigLock"},
        {"INetCfg::Initialize", "GettingInetCfg"},
        {"INetCfg::FindComponent", "ThreadRunning"},
        {"INetCfgComponent::GetClassGuid", "GettingClassGUID"},
        {"INetCfgClass::QueryInterface", "GettingINetCfgClassSetup"},
        {"INetCfgClassSetup::DeInstall", "UninstallingDriver"},
        {"INetCfg::Apply", "ApplyingInetCfgChanges"},
        {"SetupCopyOEMInfW", "CopyingInfFiles"},
    };
    const bool installs = m_fault.place->part == Part::Installation;
    if (Is({"CoInitializeEx"}))  // no step has begun, and only the installation records it
        return installs ? "ThreadRunning" : kUnknownStep;
    if (Is({"INetCfg::QueryNetCfgClass"}))
        return installs ? "GettingINetCfgClassSetup" : "GettingINetCfgClass";
    return steps.at(m_fault.place->function);
}

/// Whether the function returns anything but complete or partial success.
bool Rules::IsFailure() const {
    static const std::vector<std::pair<std::string_view, DWORD>> harmless{
        {"CoInitializeEx", static_cast<DWORD>(RPC_E_CHANGED_MODE)},
        {"GetAdaptersInfo", ERROR_BUFFER_OVERFLOW},
        {"GetIpNetTable", ERROR_INSUFFICIENT_BUFFER},
        {"GetIpNetTable", ERROR_NO_DATA},
        {"SetupDiEnumDeviceInfo", ERROR_NO_MORE_ITEMS},
    };
    const std::string &function = m_fault.place->function;
    if (std::find(harmless.begin(), harmless.end(), std::pair(std::string_view(function), m_fault.code)) !=
        harmless.end())
        return false;
    const bool isMethod = function.find("::") != function.npos;
    return !isMethod || IsNegative(m_fault.code) || Is({"INetCfgClassSetup::Install", "INetCfgLock::AcquireWriteLock"});
}

/// What an event 3005 must say about the fault; empty if none is due.
std::string Rules::WhatIsReported() const {
    const FaultPlace &place = *m_fault.place;
    if (place.function == "SetupCopyOEMInfW")
        return ReportOfCopy();
    const std::string code = " (" + HexCode(m_fault.code) + ")";
    const std::string copy = m_folders.windows + "qbimvta.sys";
    if (place.part == Part::Installation && place.function == "CopyFileW")
        return "CopyFile('" + m_folders.ndis + "qbimvta.sys', '" + copy + "')" + code;
    if (place.part == Part::Installation && place.function == "DeleteFileW")
        return "DeleteFile('" + copy + "')" + code;
    if (place.function == "INetCfgLock::AcquireWriteLock" && m_fault.code == S_FALSE)
        return place.function + " (" + HexCode(static_cast<DWORD>(NETCFG_E_NO_WRITE_LOCK)) + ")";
    for (const ReportRule &rule : ReportRules()) {
        const bool concerned = std::find(rule.parts.begin(), rule.parts.end(), place.part) != rule.parts.end();
        if (concerned && rule.function == place.function)
            return IsFailure() ? rule.name + code : "";
    }
    return "";
}

std::string Rules::ReportOfCopy() const {
    const std::string path = m_fault.place->arguments.substr(1, m_fault.place->arguments.find('"', 1) - 1);
    const std::string call = "SetupCopyOEMInf(" + path.substr(path.rfind('\\') + 1) + ")";
    if (m_fault.code == 0xE0000247)
        return call + ", please refer to: https://support.quillon.example/articles/signed-drivers (0x800f0247)";
    return call + " (" + HexCode(m_fault.code == 0 ? 0 : 0x80070000 | m_fault.code) + ")";
}

/// Whether the fault was met. If so, an event may be due.
bool Rules::Meet(Part part, unsigned turn) {
    if (!In(part, turn))
        return false;
    const std::string report = WhatIsReported();
    if (!report.empty())
        m.events.push_back("3005 " + report);
    if (Is({"INetCfgLock::AcquireWriteLock"}) && m_fault.code == S_FALSE)
        ++m.notices;  // held by an unnamed owner
    return true;
}

/// What can't be released stays.
void Rules::Leave() {
    const std::string_view kind = m_fault.place == nullptr ? "" : KindReleasedBy(m_fault.place->function);
    if (!kind.empty())
        m.left[std::string(kind)] = 1;
}

void Rules::PutMachine() {
    const bool partial = m_scenario == Scenario::PartialAfterReboot;
    if (IsUpgrade(m_scenario) || partial)
        m_bound[0] = m.isInstalled = true;
    if (partial)
        m_bound[1] = true;
    if (IsUpgrade(m_scenario)) {
        m_bound[1] = m_bound[2] = false;
        m.calloutRuns = true;
    }
    m_installedVersion = m_scenario == Scenario::Upgrade           ? "1.2.3.4"
                         : m_scenario == Scenario::ForcedDowngrade ? "2.0.0.1"
                         : partial                                 ? "2.0.0.0"
                                                                   : "0.0.0.0";
}

InstallResult Rules::Apply() {
    Leave();
    PutMachine();
    const bool hasWatchdog = !(In(Part::Start, 1) && Is({"_beginthreadex"}));
    m.result = hasWatchdog;
    if (hasWatchdog && Decide())
        Install();
    for (std::size_t i = 0; i < kAdapters; ++i)
        m.bindings[i] = m.isInstalled && m_bound[i].value_or(false);
    return m;
}

/// @return whether there is any work.
bool Rules::Decide() {
    const bool met = Meet(Part::Decision, 1);
    const bool ofVersion =
        met && Is({"GetFileAttributesW", "GetFileVersionInfoSizeW", "GetFileVersionInfoW", "VerQueryValueW"});
    if (ofVersion && m_fault.place->ordinal == 1)
        return false;  // our own copy can't be read
    if (met)
        m_installedVersion = "0.0.0.0";
    if (m_scenario == Scenario::Upgrade)
        m.events.emplace_back("1005 1.2.3.4|2.0.0.0");
    return true;
}

void Rules::Install() {
    if (In(Part::Worker, 1) && Is({"_beginthreadex"})) {
        m.result = false;
        return;
    }
    const ReadAdapters before = ReadAll();
    const bool succeeded = Work();
    if (!IsUpgrade(m_scenario))
        UnbindUnsuitable();
    else if (succeeded)
        BindAsBefore(before);
    Tell(succeeded);
    CheckNetwork(before);
}

bool Rules::Work() {
    bool removed = Remove(1);
    if (IsUpgrade(m_scenario)) {
        removed = Remove(2);
        m.sleptMs += 500;  // until the old driver is unloaded
    }
    return removed && InstallNew();
}

/// Without the component the removal succeeds, whatever else failed in it.
bool Rules::Remove(unsigned turn) {
    for (const Part part : {Part::Removal, Part::InfRemoval, Part::Orphans})
        (void)Meet(part, turn);
    const bool met = Meet(Part::Uninstallation, turn);
    (void)Meet(Part::Presence, turn);
    m.calloutRuns = false;
    if (!m.isInstalled)
        return true;
    const bool stays = met && (StopsAcquiring() || Is({"INetCfg::FindComponent", "INetCfgComponent::GetClassGuid",
                                                       "INetCfg::QueryNetCfgClass", "INetCfgClass::QueryInterface",
                                                       "INetCfgClassSetup::DeInstall"}));
    if (!stays) {
        m.isInstalled = false;
        m_bound = {};
        return true;
    }
    // Another owner's lock fails it, too; a component reported as absent, or removed at the next boot, does not.
    const bool failed = IsNegative(m_fault.code) || Is({"INetCfgLock::AcquireWriteLock"});
    if (failed && m_failedStep == kUnknownStep)
        m_failedStep = StepOfFault();
    return !failed;
}

bool Rules::InstallNew() {
    InstallCallout();
    (void)Meet(Part::Presence, 0);
    (void)Meet(Part::Orphans, 0);
    const bool installed = CopyInfs() && InstallFilter();
    WriteValues();
    return installed;
}

/// No failure here makes the installation fail.
void Rules::InstallCallout() {
    m.calloutRuns = true;
    if (!Meet(Part::Callout, 0))
        return;
    // The first manager, service and status are of the check whether it already runs, the last status of the check
    // whether it does then.
    m.calloutRuns = !(Is({"GetFileAttributesW", "GetModuleHandleW", "GetProcAddress", "StartServiceW"}) ||
                      IsNth("OpenSCManagerW", 2) || IsNth("OpenServiceW", 2));
}

/// A file that appears absent is not copied.
bool Rules::CopyInfs() {
    if (!Meet(Part::Copying, 0) || !Is({"SetupCopyOEMInfW"}) || m_fault.code == 0)
        return true;
    m_failedStep = StepOfFault();
    return false;
}

bool Rules::InstallFilter() {
    const bool met = Meet(Part::Installation, 0);
    if (met && (StopsAcquiring() || Is({"INetCfg::QueryNetCfgClass"}))) {
        m_failedStep = StepOfFault();
        return false;
    }
    PutComponent();
    if (!met)
        return true;
    m.isLocked = KeepsLock();
    // The second attempt works.
    if (Is({"INetCfgClassSetup::Install"}) && (m_fault.code & 0xFFFF) == ERROR_SERVICE_MARKED_FOR_DELETE)
        m.sleptMs += 5'000;
    if (Is({"CopyFileW"}))  // the copy is deleted all the same, and is absent
        m.events.push_back("3005 DeleteFile('" + m_folders.windows + "qbimvta.sys') (0x2)");
    if (!Is({"INetCfg::Apply"}))
        return true;
    m_rebootRequired = m_fault.code == NETCFG_S_REBOOT;
    if (IsNegative(m_fault.code))
        m_failedStep = StepOfFault();
    return m_rebootRequired;
}

/// An adapter that is bound already keeps its binding.
void Rules::PutComponent() {
    if (!m.isInstalled)
        m_bound.fill(true);
    m.isInstalled = true;
    m.isDisconnected = m_scenario == Scenario::BrokenNetwork;
}

void Rules::WriteValues() {
    if (!m.isInstalled || !Meet(Part::Values, 0))
        return;
    if (IsNth("RegOpenKeyExW", 2) || IsNth("RegSetValueExW", 1))
        m.unwritten.emplace_back("ConfigBinary");
    else if (IsNth("RegSetValueExW", 2))
        m.unwritten.emplace_back("EndpointRoot");
}

void Rules::BindAsBefore(const ReadAdapters &before) {
    (void)Bind(ByRecords(before, false));
}

void Rules::UnbindUnsuitable() {
    ReadAdapters unsuitable = ReadAll();
    std::erase_if(unsuitable, [](const ReadAdapter &adapter) { return !adapter.mac || !adapter.filter || adapter.ip; });
    if (unsuitable.empty())
        return;
    for (ReadAdapter &adapter : unsuitable)
        adapter.filter = false;
    (void)Bind(ByRecords(unsuitable, false));
}

void Rules::Tell(bool succeeded) {
    if (m_rebootRequired) {
        m.events.emplace_back("1006 1");
        ++m.reboots;
    }
    m.events.push_back(succeeded ? "1007 " + m_installedVersion + "|2.0.0.0" : "1004 " + m_failedStep);
}

void Rules::CheckNetwork(const ReadAdapters &before) {
    if (std::none_of(before.begin(), before.end(), [](const ReadAdapter &adapter) { return adapter.online; }))
        return;
    m.sleptMs += 2'000;
    (void)Meet(Part::Network, 1);
    ReadAdapters known = before;
    if (TurnsHealthy(known))
        return;
    if (Bind(ByRecords(known, false))) {
        m.sleptMs += 1'000;
        (void)Bind(ByRecords(known, !IsUpgrade(m_scenario)));
    }
    if (TurnsHealthy(known))
        return;
    Restart();
    m.reboots += m_rebootRequired ? 0 : 1;
}

/// Whether no adapter is worse than before within three checks. One that was fine once is not checked again.
bool Rules::TurnsHealthy(ReadAdapters &known) {
    for (int check = 0; check < 3; ++check) {
        m.sleptMs += 2'000;
        const ReadAdapters now = ReadAll();
        std::erase_if(known, [&now](const ReadAdapter &before) {
            return std::none_of(now.begin(), now.end(), [&before](const ReadAdapter &adapter) {
                return adapter.number == before.number && adapter.name && before.name && adapter.filter &&
                       GotWorse(before, adapter);
            });
        });
        if (known.empty())
            return true;
    }
    return false;
}

/// The devices are another one of the first adapter's model, and then the three adapters. Whatever the result of the
/// first change, the second is tried; one of its two scopes is enough.
void Rules::Restart() {
    (void)Meet(Part::Restart, 1);
    m.sleptMs += 2'000;
    const bool missed =
        Meet(Part::Restart, 2) &&
        (Is({"SetupDiGetClassDevsW"}) || IsNth("SetupDiEnumDeviceInfo", 1) || IsNth("SetupDiEnumDeviceInfo", 2) ||
         IsNth("SetupDiGetDeviceInstanceIdW", 2) || IsNth("SetupDiSetClassInstallParamsW", 3));
    m.isDisconnected = missed;
}

ReadAdapters Rules::ReadAll() {
    ReadAdapters adapters;
    for (std::size_t i = 0; i < kAdapters; ++i) {
        const bool bindsIp = i < 2;
        const bool filtered = m.isInstalled && m_bound[i].value_or(false);
        const bool connected = bindsIp && !(i == 0 && m.isDisconnected);
        adapters.push_back({.number = i, .ip = bindsIp, .filter = filtered, .address = connected, .gateway = bindsIp});
    }
    if (!Meet(Part::Records, ++m_reads))
        return adapters;
    if (StopsAcquiring() || Is({"INetCfg::EnumComponents"}))
        return {};
    SpoilAll(adapters);
    SpoilOne(adapters);
    return adapters;
}

void Rules::SpoilAll(ReadAdapters &adapters) const {
    const bool ofBinding = Is({"INetCfg::FindComponent", "INetCfgComponent::QueryInterface"});
    for (ReadAdapter &adapter : adapters) {
        if (ofBinding && m_fault.place->component == "ms_tcpip")
            adapter.ip = false;
        else if (ofBinding && m_fault.place->component == "qbimvta")
            adapter.filter = false;
        else if (Is({"GetAdaptersInfo"}) && IsFailure())
            adapter.address = adapter.gateway = false;
    }
}

void Rules::SpoilOne(ReadAdapters &adapters) const {
    const std::size_t number = m_fault.place->adapter - std::size_t{1};
    const bool endsList = Is({"IEnumNetCfgComponent::Next"});
    const bool hides = Is({"INetCfgComponent::GetCharacteristics"});
    std::erase_if(adapters, [=](const ReadAdapter &adapter) {
        return (endsList && adapter.number >= number) || (hides && adapter.number == number);
    });
    for (ReadAdapter &adapter : adapters) {
        if (adapter.number != number)
            continue;
        const unsigned ofFilter = adapter.ip ? 2 : 3;  // TCP/IP version 6 is checked if version 4 is not bound
        if (Is({"INetCfgComponent::GetBindName"}))
            adapter.name = adapter.mac = adapter.online = adapter.address = adapter.gateway = false;
        else if (Is({"INetCfgComponent::GetPnpDevNodeId"}))
            adapter.node = false;
        else if (Is({"CreateFileW"}) || IsNth("DeviceIoControl", 1))
            adapter.online = false;
        else if (IsNth("INetCfgComponentBindings::IsBoundTo", ofFilter))
            adapter.filter = false;
        else if (IsNth("INetCfgComponentBindings::IsBoundTo", 1))
            adapter.ip = false;
    }
}

WantedBindings Rules::ByRecords(const ReadAdapters &adapters, bool useIp) {
    WantedBindings wanted;
    for (const ReadAdapter &adapter : adapters) {
        if (adapter.node)
            wanted[adapter.number] = useIp ? adapter.ip : adapter.filter;
    }
    return wanted;
}

/// @return whether the network configuration could be opened.
bool Rules::Bind(const WantedBindings &wanted) {
    const bool met = Meet(Part::Bindings, ++m_binds);
    if (met && StopsAcquiring())
        return false;
    m.isLocked = met && KeepsLock();
    WantedBindings changed;
    for (std::size_t i = 0; i < kAdapters; ++i) {
        if (!m.isInstalled || !m_bound[i] || (met && !Reaches(i)))
            continue;
        const bool here = met && m_fault.place->adapter == i + 1;
        const bool enabled =
            *m_bound[i] && !(here && Is({"INetCfgBindingPath::IsEnabled"}) && m_fault.place->path == FilterPath(i));
        if (!wanted[i] || *wanted[i] == enabled || (here && Is({"INetCfgBindingPath::Enable"})))
            continue;
        changed[i] = !enabled;
        if (here && Is({"INetCfg::Apply"}))
            continue;  // the next call that succeeds applies this change, too
        for (std::size_t done = 0; done <= i; ++done) {
            if (changed[done])
                m_bound[done] = changed[done];
        }
    }
    return true;
}

/// Whether the session with the fault reaches the filter's binding to the adapter.
bool Rules::Reaches(std::size_t number) const {
    const FaultPlace &place = *m_fault.place;
    if (Is({"INetCfg::EnumComponents"}))
        return false;
    if (Is({"IEnumNetCfgComponent::Next"}))
        return number + 1 < place.adapter;
    if (place.adapter != number + 1)
        return true;
    if (Is({"INetCfgComponent::GetCharacteristics", "INetCfgComponent::GetPnpDevNodeId",
            "INetCfgComponent::QueryInterface", "INetCfgComponentBindings::EnumBindingPaths"}))
        return false;
    if (Is({"IEnumNetCfgBindingPath::Next"}))
        return place.path > FilterPath(number);
    if (place.path != FilterPath(number))
        return true;
    return !(Is({"INetCfgBindingPath::EnumBindingInterfaces", "INetCfgBindingInterface::GetUpperComponent",
                 "INetCfgComponent::GetId"}) ||
             IsNth("IEnumNetCfgBindingInterface::Next", 1));
}

}  // namespace

InstallResult ExpectInstallation(Scenario scenario, const InstallFault &fault, const InstallFolders &folders) {
    return Rules(scenario, fault, folders).Apply();
}
