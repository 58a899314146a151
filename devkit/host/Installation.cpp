#include "Installation.h"

#include <algorithm>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include <windows.h>

#include "Nearest.h"
#include "Text.h"
#include "WindowsFunctions.h"
#include "vti_control.h"

namespace {

std::string_view Trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r";
    const std::size_t begin = std::min(text.find_first_not_of(blanks), text.size());
    text.remove_prefix(begin);
    return text.substr(0, text.find_last_not_of(blanks) + 1);
}

bool SameInAnyCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && _strnicmp(a.data(), b.data(), a.size()) == 0;
}

/// The effect of an INF file's line on a service.
struct ServiceLine {
    bool adds = false;  ///< Otherwise it deletes.
    std::wstring service;
};

/// "AddService = name, ..." or "DelService = name, ..."; empty for any other line.
std::optional<ServiceLine> ReadServiceLine(std::string_view line) {
    const std::size_t equals = line.find('=');
    const std::string_view key = Trimmed(line.substr(0, equals));
    const bool adds = SameInAnyCase(key, "AddService");
    if (equals == line.npos || (!adds && !SameInAnyCase(key, "DelService")))
        return std::nullopt;
    const std::string_view value = line.substr(equals + 1);
    const std::string_view name = Trimmed(value.substr(0, std::min(value.find_first_of(",;"), value.size())));
    if (name.empty())
        return std::nullopt;
    return ServiceLine{adds, std::wstring(name.begin(), name.end())};
}

/// The effect of an INF file's section on services, which its part ".Services" describes.
std::vector<ServiceLine> ServiceLines(const std::filesystem::path &inf, const std::string &section) {
    std::vector<ServiceLine> lines;
    const std::string wanted = "[" + section + ".Services]";
    bool isWanted = false;
    std::ifstream file(inf);
    for (std::string text; std::getline(file, text);) {
        const std::string_view line = Trimmed(text);
        if (line.starts_with('['))
            isWanted = SameInAnyCase(line, wanted);
        else if (const std::optional<ServiceLine> service = isWanted ? ReadServiceLine(line) : std::nullopt)
            lines.push_back(*service);
    }
    return lines;
}

template <typename Has>
std::vector<std::string> Those(const std::set<std::wstring> &names, const Has &has) {
    std::vector<std::string> there;
    for (const std::wstring &name : names)
        if (has(name))
            there.push_back(ToUtf8(name));
    return there;
}

/// Loads or unloads the driver.
void LoadDriver(const std::string &version, bool loaded) {
    const std::lock_guard<std::mutex> guard(Vti::Lock());
    Vti::TheDriver().present = loaded;
    if (loaded)
        Vti::TheDriver().version = version;
}

/// It has counted and been told nothing. Its faults are the script's, and stay.
void BootDriver() {
    const std::lock_guard<std::mutex> guard(Vti::Lock());
    Vti::Driver &driver = Vti::TheDriver();
    Vti::Driver fresh;
    fresh.present = driver.present;
    fresh.available = driver.available;
    fresh.version = driver.version;
    fresh.openHandles = driver.openHandles;
    fresh.faults = std::move(driver.faults);
    fresh.calls = std::move(driver.calls);
    driver = std::move(fresh);
}

std::vector<std::string> FileNames(const std::filesystem::path &folder) {
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(folder))
        names.insert(ToUtf8(entry.path().filename().wstring()));
    return {names.begin(), names.end()};
}

}  // namespace

Installation::Installation() {
    m_setup.onInstallSection = [this](const std::wstring &command) { InstallSection(command); };
    m_network.configuration->OnMoment([this](const Simulator::NetworkMoment &moment) { OnNetwork(moment); });
    m_network.devices->OnChange([this](const Simulator::DeviceChange &change) { OnDevice(change); });
}

void Installation::PutUnder(Simulator::FunctionSet &functions, const std::shared_ptr<Simulator::Core> &core,
                            const Simulator::Machine &machine) {
    Install(functions, core,
            {.registry = &m_registry,
             .folders = &m_folders,
             .filesInUse = &m_filesInUse,
             .services = &m_services,
             .security = &m_security,
             .setup = &m_setup,
             .network = &m_network});
    InstallFirewall(functions, core, m_network.com, m_firewall, &machine);
    InstallThreads(functions);
}

/// Installs a section of an INF file, as far as it adds and deletes services.
/// @param command  section, flags, and file, the first two each followed by a space.
void Installation::InstallSection(const std::wstring &command) {
    const std::size_t section = command.find(L' ');
    const std::size_t flags = section == command.npos ? section : command.find(L' ', section + 1);
    if (flags == command.npos)
        return;
    const std::string name(command.begin(), command.begin() + static_cast<std::ptrdiff_t>(section));
    for (const ServiceLine &line : ServiceLines(command.substr(flags + 1), name)) {
        if (!line.adds)
            m_services.Remove(line.service);
        else if (!m_services.Has(line.service))
            PutService(line.service, SERVICE_STOPPED);
    }
}

void Installation::PutComponent(const Simulator::NetworkComponent &component) {
    m_network.configuration->Put(component);
}

void Installation::PutDevice(const Simulator::Device &device) {
    if (!device.componentId.empty())
        CheckComponent(device.componentId);
    m_network.devices->Put(device);
    m_deviceIds.insert(device.instanceId);
}

void Installation::PutService(const std::wstring &name, DWORD state, DWORD startType) {
    m_services.Put(name, {.status = {state}, .startType = startType});
    const Simulator::LockGuard guard(m_lock);
    m_serviceNames.insert(name);
}

void Installation::PutKey(const std::wstring &path) {
    m_registry.PutKey(HKEY_LOCAL_MACHINE, path);
    m_keyPaths.insert(path);
}

void Installation::LockNetwork(const std::wstring &holder) {
    m_network.configuration->LockFromElsewhere(holder);
}

void Installation::UnlockNetwork() {
    m_network.configuration->Unlock();
}

void Installation::EndProcess() {
    m_network.configuration->EndProcess();
}

void Installation::Lack(const std::string &function) {
    m_setup.Lack(function);
}

void Installation::PutAdapter(Simulator::NetworkAdapter adapter) {
    wchar_t bindName[40] = L"";
    (void)std::swprintf(bindName, std::size(bindName), L"{%08X-0000-4000-8000-000000000000}", ++m_adapters);
    adapter.bindName = bindName;
    m_network.configuration->RemoveAdapter(adapter.pnpDevNodeId);
    PutDevice({.instanceId = adapter.pnpDevNodeId, .description = adapter.displayName});
    m_network.configuration->PutAdapter(std::move(adapter));
}

void Installation::CheckAdapter(const std::wstring &node) const {
    if (m_network.configuration->ChangeAdapter(node, [](Simulator::NetworkAdapter &) {}))
        return;
    std::vector<std::string> nodes;
    for (const AdapterState &adapter : Adapters())
        nodes.push_back(adapter.node);
    throw std::invalid_argument("there is no adapter " + ToUtf8(node) + Suggestion(ToUtf8(node), nodes));
}

/// It is there, or can be installed.
void Installation::CheckComponent(const std::wstring &id) const {
    std::vector<std::string> ids;
    const Simulator::NetworkState network = m_network.configuration->Read();
    for (const Simulator::NetworkComponent &component : network.components) {
        if (!component.adapter)
            ids.push_back(ToUtf8(component.id));
    }
    for (const Simulator::InstallableComponent &installable : network.installable)
        ids.push_back(ToUtf8(installable.component.id));
    const std::string wanted = ToUtf8(id);
    const auto isMeant = [&wanted](const std::string &other) { return SameInAnyCase(wanted, other); };
    if (std::none_of(ids.begin(), ids.end(), isMeant))
        throw UnknownComponent("there is no component " + wanted +
                               ", nor can it be installed: use put_component or put_installable first" +
                               Suggestion(wanted, ids));
}

void Installation::ChangeAdapterAt(const std::wstring &node, const AdapterChange &change) {
    CheckAdapter(node);
    (void)m_network.configuration->ChangeAdapter(
        node, [&change](Simulator::NetworkAdapter &adapter) { ChangeAdapter(adapter, change); });
}

void Installation::RemoveAdapter(const std::wstring &node) {
    CheckAdapter(node);
    m_network.configuration->RemoveAdapter(node);
    m_network.devices->Remove(node);
}

void Installation::Bind(const std::wstring &node, const std::wstring &component, bool bound) {
    CheckAdapter(node);
    CheckComponent(component);
    m_network.configuration->Bind(node, component, bound);
}

std::vector<AdapterState> Installation::Adapters() const {
    std::vector<AdapterState> adapters;
    const Simulator::NetworkState network = m_network.configuration->Read();
    for (const Simulator::NetworkComponent &component : network.components) {
        if (!component.adapter)
            continue;
        const Simulator::NetworkAdapter &adapter = *component.adapter;
        AdapterState state{ToUtf8(adapter.pnpDevNodeId),
                           ToUtf8(adapter.displayName.value_or(adapter.pnpDevNodeId)),
                           adapter.ip,
                           adapter.gateway,
                           adapter.mediaStatus == DWORD{0},
                           m_network.devices->IsEnabled(adapter.pnpDevNodeId),
                           {}};
        for (const Simulator::NetworkComponent &other : network.components) {
            if (m_network.configuration->Binding(adapter.pnpDevNodeId, other.id).value_or(false))
                state.bound.push_back(ToUtf8(other.id));
        }
        adapters.push_back(std::move(state));
    }
    return adapters;
}

void Installation::PutInstallable(const Simulator::InstallableComponent &installable,
                                  const std::optional<std::string> &loads) {
    const std::wstring &id = installable.component.id;
    m_network.configuration->Use([&installable, &id](Simulator::NetworkState &state) {
        std::erase_if(state.installable, [&id](const Simulator::InstallableComponent &other) {
            return Simulator::SameInAnyCase(other.component.id, id);
        });
        state.installable.push_back(installable);
    });
    const Simulator::LockGuard guard(m_lock);
    m_loads.erase(id);
    if (loads)
        m_loads.emplace(id, *loads);
}

std::size_t Installation::When(const NetworkRule &rule) {
    CheckAdapter(rule.node);
    if (!rule.when.adapter.empty())
        CheckAdapter(rule.when.adapter);
    return m_rules.Add(rule);
}

/// The version of the driver that the component loads, if it loads one.
std::optional<std::string> Installation::LoadedBy(const std::wstring &component) const {
    const Simulator::LockGuard guard(m_lock);
    const auto found = m_loads.find(component);
    return found == m_loads.end() ? std::nullopt : std::optional(found->second);
}

/// @param version  nothing for a component that was removed.
void Installation::NoteInstalled(const std::wstring &component, const std::optional<std::string> &version) {
    const Simulator::LockGuard guard(m_lock);
    m_installed.erase(component);
    if (version)
        m_installed.emplace(component, *version);
}

void Installation::Reboot() {
    m_filesInUse.Boot();
    m_services.Boot();
    m_network.configuration->Boot();
    VersionsByComponent loads;
    {
        const Simulator::LockGuard guard(m_lock);
        loads = m_installed;
        loads.insert(m_loads.begin(), m_loads.end());  // of components that the script has put there
    }
    BootDriver();
    for (const auto &[component, version] : loads)
        LoadDriver(version, m_network.configuration->Has(component));
}

void Installation::OnNetwork(const Simulator::NetworkMoment &moment) {
    using Moment = Simulator::NetworkMoment::What;
    using What = NetworkHappening::What;
    What what = What::Unbound;
    if (moment.what == Moment::Installed)
        what = What::Installed;
    else if (moment.what == Moment::Removed)
        what = What::Removed;
    else if (moment.what == Moment::BindingEnabled)
        what = What::Bound;
    const bool concernsDriver = what == What::Installed || what == What::Removed;
    if (const auto version = concernsDriver ? LoadedBy(moment.component) : std::nullopt) {
        NoteInstalled(moment.component, what == What::Installed ? version : std::nullopt);
        if (!moment.needsReboot)
            LoadDriver(*version, what == What::Installed);
    }
    FollowRules({what, moment.component, moment.adapter});
}

void Installation::OnDevice(const Simulator::DeviceChange &change) {
    if (change.state == DICS_ENABLE)
        FollowRules({NetworkHappening::What::Enabled, {}, change.instanceId});
    else if (change.state == DICS_DISABLE)
        FollowRules({NetworkHappening::What::Disabled, {}, change.instanceId});
}

void Installation::FollowRules(const NetworkHappening &happening) {
    for (const NetworkRule &rule : m_rules.Take(happening)) {
        // An adapter that was removed meanwhile stays removed.
        (void)m_network.configuration->ChangeAdapter(
            rule.node, [&rule](Simulator::NetworkAdapter &adapter) { ChangeAdapter(adapter, rule.change); });
    }
}

Inventory Installation::Take() const {
    Inventory inventory;
    const Simulator::NetworkState network = m_network.configuration->Read();
    for (const Simulator::NetworkComponent &component : network.components) {
        if (!component.adapter)
            inventory.components.push_back(ToUtf8(component.id));
    }
    if (network.lock)
        inventory.lock = ToUtf8(network.lock->description);
    inventory.devices = Those(m_deviceIds, [this](const std::wstring &id) { return m_network.devices->Has(id); });
    {
        const Simulator::LockGuard guard(m_lock);
        for (const std::wstring &name : m_serviceNames) {
            if (m_services.Has(name))
                inventory.services.emplace_back(ToUtf8(name), m_services.Get(name).status.state);
        }
    }
    inventory.infFiles = FileNames(m_folders.Inf());
    inventory.keys =
        Those(m_keyPaths, [this](const std::wstring &path) { return m_registry.HasKey(HKEY_LOCAL_MACHINE, path); });
    for (const Simulator::MoveAtBoot &move : m_filesInUse.LeftToBoot())
        inventory.leftToBoot.push_back(ToUtf8(move.from));
    return inventory;
}

std::size_t Installation::CountLeftToBoot() const {
    return m_filesInUse.CountLeftToBoot();
}
