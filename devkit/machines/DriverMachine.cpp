#include "DriverMachine.h"

#include <algorithm>
#include <fstream>
#include <thread>

#include "Failure.h"
#include "slb3_control.h"

namespace {

using std::filesystem::path;

void Write(const path &file, const std::string &content) {
    std::ofstream(file, std::ios::binary) << content;
}

std::string WithoutPointers(const std::string &arguments) {
    std::string text;
    for (std::size_t at = 0; at < arguments.size();) {
        const std::size_t begin = std::min(arguments.find("0x", at), arguments.size());
        text.append(arguments, at, begin - at);
        if (begin != arguments.size())
            text += '*';
        at = arguments.find_first_not_of("0123456789abcdef", std::min(begin + 2, arguments.size()));
    }
    return text;
}

}  // namespace

std::vector<std::string> Removal::ThreadLog() const {
    return Lines(wxLOG_Message);
}

std::vector<std::string> Removal::Lines(wxLogLevel level) const {
    std::vector<std::string> lines;
    for (const LogLine &line : log) {
        if (line.level == level)
            lines.push_back(line.text);
    }
    return lines;
}

DriverMachine::DriverMachine() : ModuleMachine(Simulator::SimulationParts{}) {
    simulation().GetClock().Step(Simulator::Clock::AutoAdvance::Sleeps);
    simulation().Attach(GetModuleHandleW(L"vta_core.dll"), {"GetTickCount"});
    simulation().GetJournal().Mute("GetTickCount");
    std::filesystem::create_directories(WfpFolder());
    SLB3::Control::PushInstance(lua, "SLB.Dom", &dom);
    lua_setglobal(lua, "dom");
    lua_pushstring(lua, path(WfpFolder()).string().c_str());
    lua_setglobal(lua, "wfp");
    InstallDrivers();
}

std::wstring DriverMachine::WfpFolder() {
    return (simulation().GetFolders().ProgramFiles() / L"wfp").wstring() + L"\\";
}

std::string DriverMachine::InfNaming(const std::string &driver, int times) {
    std::string content = "; an INF file\r\n[Version]\r\nSignature=\"$Windows NT$\"\r\n";
    for (int i = 0; i < times; ++i)
        content += "Driver" + std::to_string(i) + " = " + driver + ".sys\r\n";
    return content + "; the end of it\r\n";
}

void DriverMachine::PutInf(const std::wstring &name, const std::string &content) {
    const path inf = simulation().GetFolders().Inf() / name;
    Write(inf, content);
    Write(path(inf).replace_extension(L".pnf"), "compiled");
    Write(simulation().GetFolders().Catalogs() / path(name).replace_extension(L".cat"), "signed");
}

void DriverMachine::RemoveFilterComponent() {
    simulation().GetNetwork().Use([](auto &state) { state.components.clear(); });
    simulation().GetDevices().RemoveOf(L"qbimvta");
}

void DriverMachine::KeepFilterComponent() {
    simulation().GetNetwork().Use([](auto &state) { state.components.front().deInstallsUntilGone = 0; });
}

void DriverMachine::RemoveDrivers() {
    RemoveFilterComponent();
    simulation().GetServices().Remove(L"qbimwfp");
    for (const wchar_t *name : {L"oem1.inf", L"oem2.inf"})
        std::filesystem::remove(simulation().GetFolders().Inf() / name);
    for (const wchar_t *name : {L"qbimvtaHC.dat", L"qbimwfpHC.dat"})
        std::filesystem::remove(simulation().GetFolders().System32() / name);
}

void DriverMachine::InstallDrivers() {
    RemoveFilterComponent();
    simulation().GetNetwork().Put({.id = L"qbimvta"});
    simulation().GetDevices().Put(
        {.instanceId = L"ROOT\\QBIMVTA_MP\\0000", .description = L"Filter miniport", .componentId = L"qbimvta"});
    simulation().GetDevices().Put({.instanceId = L"PCI\\VEN_8086&DEV_100E", .description = L"Network adapter"});
    simulation().GetServices().Put(L"qbimwfp", {.status = {SERVICE_RUNNING}});
    simulation().GetSetup().onInstallSection = [this](const std::wstring &command) {
        if (command.starts_with(L"DefaultUninstall "))
            simulation().GetServices().Remove(L"qbimwfp");
    };
    PutInf(L"oem1.inf", InfNaming("qbimvta", 10));
    PutInf(L"oem2.inf", InfNaming("qbimwfp", 10));
    PutInf(L"oem3.inf", InfNaming("another", 100));
    Write(WfpFolder() + L"netqbimwfp.inf", InfNaming("qbimwfp", 10));
    Write(simulation().GetFolders().System32() / L"qbimvtaHC.dat", "health");
    Write(simulation().GetFolders().System32() / L"qbimwfpHC.dat", "health");
}

void DriverMachine::PutOrphan() {
    simulation().GetDevices().Put({.instanceId = L"ROOT\\QBIMVTA_MP\\0001", .description = L"Filter miniport"});
}

std::vector<std::string> DriverMachine::Calls(const std::set<std::string> &functions) {
    std::vector<std::string> calls;
    for (const Simulator::JournalEntry &entry : simulation().GetJournal().Entries()) {
        if (functions.contains(entry.function))
            calls.push_back(entry.function + "(" + WithoutPointers(entry.arguments) + ")");
    }
    return calls;
}

std::vector<std::string> DriverMachine::NamesOfCalls(const std::set<std::string> &functions) {
    std::vector<std::string> names = simulation().GetJournal().Names();
    std::erase_if(names, [&functions](const std::string &name) { return !functions.contains(name); });
    return names;
}

bool DriverMachine::HasInf(const std::wstring &name) {
    return exists(simulation().GetFolders().Inf() / name);
}

bool DriverMachine::HasService() {
    return simulation().GetServices().Has(L"qbimwfp");
}

Removal DriverMachine::Uninstall() {
    return UninstallWhile([] {});
}

Removal DriverMachine::UninstallWhile(const std::function<void()> &meanwhile) {
    return CallWhile("SLB.filter.UninstallDriver(dom, 'C:\\\\ndis\\\\', wfp)", meanwhile);
}

Removal DriverMachine::CallWhile(const std::string &call, const std::function<void()> &meanwhile) {
    (void)simulation().GetJournal().Take();
    const std::uint64_t begin = simulation().GetClock().TickMs();
    Removal removal;
    returned = false;
    std::thread other(meanwhile);
    const std::string result = lua.Eval(call);
    returned = true;
    other.join();
    if (result != "true" && result != "false")
        NoteFailure(call + " yields " + result);
    removal.result = result == "true";
    removal.tookMs = simulation().GetClock().TickMs() - begin;
    TakeRecords(removal);
    return removal;
}

void DriverMachine::TakeRecords(Removal &removal) {
    wxLog::FlushActive();
    const std::vector<LogLine> lines = log.Take();
    removal.log.insert(removal.log.end(), lines.begin(), lines.end());
    for (const VtaCore::Control::Event &event : VtaCore::Control::TakeEvents())
        removal.events.push_back(std::to_string(event.number) + "|" + event.text.utf8_string());
    for (const VtaCore::Control::Notification &notification : VtaCore::Control::TakeNotifications())
        removal.notifications.push_back(notification);
}
