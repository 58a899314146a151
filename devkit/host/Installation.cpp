#include "Installation.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

#include <windows.h>

#include "Text.h"

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

/// The service of a line "DelService = name, flags"; empty for another line.
std::string_view DeletedService(std::string_view line) {
    const std::size_t equals = line.find('=');
    if (equals == line.npos || !SameInAnyCase(Trimmed(line.substr(0, equals)), "DelService"))
        return {};
    const std::string_view value = line.substr(equals + 1);
    return Trimmed(value.substr(0, std::min(value.find_first_of(",;"), value.size())));
}

/// The services that a section of an INF file deletes, as its part ".Services" tells.
std::vector<std::wstring> DeletedServices(const std::filesystem::path &inf, const std::string &section) {
    std::vector<std::wstring> services;
    const std::string wanted = "[" + section + ".Services]";
    bool isWanted = false;
    std::ifstream file(inf);
    for (std::string text; std::getline(file, text);) {
        const std::string_view line = Trimmed(text);
        if (line.starts_with('['))
            isWanted = SameInAnyCase(line, wanted);
        const std::string_view service = isWanted ? DeletedService(line) : std::string_view();
        if (!service.empty())
            services.emplace_back(service.begin(), service.end());
    }
    return services;
}

/// What installing a section of an INF file does here: it deletes services.
/// @param command  section, flags, and file, with a blank behind each of the first two.
void InstallSection(Simulator::ServiceManager &services, const std::wstring &command) {
    const std::size_t section = command.find(L' ');
    const std::size_t flags = section == command.npos ? section : command.find(L' ', section + 1);
    if (flags == command.npos)
        return;
    const std::string name(command.begin(), command.begin() + static_cast<std::ptrdiff_t>(section));
    for (const std::wstring &service : DeletedServices(command.substr(flags + 1), name))
        services.Remove(service);
}

template <typename Has>
std::vector<std::string> Those(const std::set<std::wstring> &names, const Has &has) {
    std::vector<std::string> there;
    for (const std::wstring &name : names)
        if (has(name))
            there.push_back(ToUtf8(name));
    return there;
}

std::vector<std::string> FileNames(const std::filesystem::path &folder) {
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(folder))
        names.insert(ToUtf8(entry.path().filename().wstring()));
    return {names.begin(), names.end()};
}

}  // namespace

Installation::Installation() {
    m_setup.onInstallSection = [this](const std::wstring &command) { InstallSection(m_services, command); };
}

void Installation::PutUnder(Simulator::FunctionSet &functions, const std::shared_ptr<Simulator::Core> &core) {
    Install(functions, core,
            {.registry = &m_registry,
             .folders = &m_folders,
             .filesInUse = &m_filesInUse,
             .services = &m_services,
             .security = &m_security,
             .setup = &m_setup,
             .network = &m_network});
}

void Installation::PutComponent(const Simulator::NetworkComponent &component) {
    m_network.configuration->Put(component);
}

void Installation::PutDevice(const Simulator::Device &device) {
    m_network.devices->Put(device);
    m_deviceIds.insert(device.instanceId);
}

void Installation::PutService(const std::wstring &name, DWORD state) {
    m_services.Put(name, {.status = {state}});
    m_serviceNames.insert(name);
}

void Installation::PutKey(const std::wstring &path) {
    m_registry.PutKey(HKEY_LOCAL_MACHINE, path);
    m_keyPaths.insert(path);
}

void Installation::LockNetwork(const std::wstring &holder) {
    m_network.configuration->LockFromElsewhere(holder);
}

void Installation::Lack(const std::string &function) {
    m_setup.Lack(function);
}

Inventory Installation::Take() const {
    Inventory inventory;
    const Simulator::NetworkState network = m_network.configuration->Read();
    for (const Simulator::NetworkComponent &component : network.components)
        inventory.components.push_back(ToUtf8(component.id));
    if (network.lock)
        inventory.lock = ToUtf8(network.lock->description);
    inventory.devices = Those(m_deviceIds, [this](const std::wstring &id) { return m_network.devices->Has(id); });
    for (const std::wstring &name : m_serviceNames) {
        if (m_services.Has(name))
            inventory.services.emplace_back(ToUtf8(name), m_services.Get(name).status.state);
    }
    inventory.infFiles = FileNames(m_folders.Inf());
    inventory.keys =
        Those(m_keyPaths, [this](const std::wstring &path) { return m_registry.HasKey(HKEY_LOCAL_MACHINE, path); });
    for (const Simulator::MoveAtBoot &move : m_filesInUse.LeftToBoot())
        inventory.leftToBoot.push_back(ToUtf8(move.from));
    return inventory;
}
