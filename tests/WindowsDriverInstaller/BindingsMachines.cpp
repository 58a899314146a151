#include "BindingsMachines.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>
#include <map>
#include <random>
#include <sstream>
#include <utility>

namespace Bindings {

namespace {

using When = Reaction::When;
using What = Reaction::What;
using Kind = Machine::Kind;

constexpr char kZero = '\0';

/// Equal ones, with a common prefix, too short, all zeros, of a dial-in adapter, too long.
const std::array<std::string, 10> kMacs{
    std::string{2, 0, 0, 0, 0, 1},
    std::string{2, 0, 0, 0, 0, 1},
    std::string{2, 0, 0, 0, 0, 2},
    std::string{2, 0, 0, 0, 0, 3},
    std::string{2, 0, 0, 0, 0, 1, 0, 0},
    std::string(6, kZero),
    std::string{2, 0, 0, 1},
    std::string(2, kZero) + " RAS",
    std::string{},
    std::string{2, 0, 0, 0, 0, 1, 0, 0, 5, 6, 7, 8},
};

/// Functions that only the code that reads adapters or changes bindings calls.
const std::array<const char *, 17> kOfAdapters{
    "INetCfg::EnumComponents",
    "INetCfgComponent::QueryInterface",
    "INetCfgComponent::GetCharacteristics",
    "INetCfgComponent::GetBindName",
    "INetCfgComponent::GetDeviceStatus",
    "INetCfgComponent::GetPnpDevNodeId",
    "INetCfgComponent::GetDisplayName",
    "INetCfgComponent::GetId",
    "INetCfgComponentBindings::IsBoundTo",
    "INetCfgComponentBindings::EnumBindingPaths",
    "INetCfgBindingPath::IsEnabled",
    "INetCfgBindingPath::Enable",
    "INetCfgBindingPath::EnumBindingInterfaces",
    "INetCfgBindingInterface::GetUpperComponent",
    "GetAdaptersInfo",
    "DeviceIoControl",
    "SetupDiCallClassInstaller",
};
/// Those that the worker calls, too.
const std::array<const char *, 12> kOfAll{
    "INetCfg::Apply",
    "INetCfg::Apply",
    "INetCfg::Initialize",
    "INetCfg::Uninitialize",
    "INetCfg::QueryInterface",
    "INetCfg::FindComponent",
    "INetCfgLock::AcquireWriteLock",
    "INetCfgLock::ReleaseWriteLock",
    "CoCreateInstance",
    "CoInitializeEx",
    "SetupDiGetClassDevsW",
    "SetupDiSetClassInstallParamsW",
};

class Generator {
public:
    explicit Generator(unsigned seed) : m_random(seed) {}

    Machine Make() {
        MakeSystem();
        MakeAdapters();
        if (Chance(55))
            MakeTrouble();
        if (Chance(12))
            MakeComingAndGoing();
        if (Chance(7))
            MakeLock();
        if (Chance(40))
            MakeFault();
        if (Chance(4))
            MakeFruitlessRestart();
        return m_machine;
    }

private:
    unsigned Below(unsigned end) { return m_random() % end; }
    bool Chance(unsigned percent) { return Below(100) < percent; }
    template <class Container>
    auto Pick(const Container &container) {
        return container[Below(static_cast<unsigned>(std::size(container)))];
    }

    void MakeSystem() {
        struct System {
            unsigned major, minor;
            bool isServer;
        };
        const System system = Pick(std::array<System, 10>{{{10, 0, false},
                                                           {10, 0, false},
                                                           {6, 1, false},
                                                           {10, 0, true},
                                                           {6, 2, true},
                                                           {6, 1, true},
                                                           {6, 1, true},
                                                           {6, 1, true},
                                                           {6, 0, true},
                                                           {5, 2, true}}});
        m_machine.osMajor = system.major;
        m_machine.osMinor = system.minor;
        m_machine.isServer = system.isServer;
        m_machine.kind = Pick(std::array<Kind, 8>{Kind::Fresh, Kind::Fresh, Kind::Fresh, Kind::Upgrade, Kind::Upgrade,
                                                  Kind::Upgrade, Kind::Reinstall, Kind::Forced});
        m_machine.hasIp4 = !Chance(5);
        m_machine.hasIp6 = !Chance(8);
        if (Chance(5))
            m_machine.answer = Machine::Answer::Failure;
        else if (Chance(4))
            m_machine.answer = Machine::Answer::Reboot;
        using Loaded = Machine::Loaded;
        m_machine.loaded = Pick(std::array<Loaded, 10>{Loaded::Ours, Loaded::Ours, Loaded::Ours, Loaded::Ours,
                                                       Loaded::Ours, Loaded::Ours, Loaded::Ours, Loaded::None,
                                                       Loaded::Old, Loaded::OldUntilUnbound});
    }

    void MakeAdapters() {
        const unsigned many = Chance(1) ? 17 + Below(3) : Below(6);
        for (unsigned i = 0; i < many; ++i)
            m_machine.adapters.push_back(MakeAdapter());
        if (Chance(10))
            m_machine.devices.push_back({.instanceId = "USB\\PRINTER\\1"});
    }

    Adapter MakeAdapter() {
        const std::string number = std::to_string(++m_adapters);
        Adapter adapter;
        // Cards of one model have the same component, and their device names begin alike.
        const std::string card = "PCI\\VEN_8086&DEV_100" + std::to_string(Below(4));
        adapter.node = card + "\\" + number;
        if (Chance(3) && !m_machine.adapters.empty())
            adapter.node = m_machine.adapters.back().node;
        adapter.componentId = Chance(50) ? card : "pci\\ven_8086&dev_100" + card.substr(card.size() - 1);
        adapter.bindName = "{Adapter-" + number + "}";
        if (Chance(3) && !m_machine.adapters.empty())
            adapter.bindName = m_machine.adapters.back().bindName;
        if (Chance(2))
            adapter.bindName.clear();
        if (!Chance(7))
            adapter.displayName = (Chance(5) ? std::string(70, 'x') : "Adapter ") + number;
        MakeNature(adapter);
        MakeState(adapter);
        MakeBindings(adapter.node);
        MakeDevice(adapter.node);
        return adapter;
    }

    void MakeNature(Adapter &adapter) {
        const unsigned nature = Below(20);
        adapter.isVirtual = nature < 5;
        adapter.isPhysical = nature == 0 || (nature > 4 && nature < 19);
        adapter.mac = Pick(kMacs);
        adapter.inIpHelper = !Chance(8);
    }

    void MakeState(Adapter &adapter) {
        const std::string number = std::to_string(m_adapters);
        if (!Chance(10))
            adapter.ip = "10.0." + number + ".10";
        else if (Chance(30))
            adapter.ip = "255.255.255.255";
        if (!Chance(25))
            adapter.gateway = "10.0." + number + ".1";
        adapter.deviceStatus = Chance(8) ? 10 : 0;
        adapter.opens = !Chance(4);
        if (Chance(12))
            adapter.media = 1;
        else if (Chance(4))
            adapter.media.reset();
    }

    std::optional<bool> MakeBinding(unsigned percentNone, unsigned percentDisabled) {
        if (Chance(percentNone))
            return std::nullopt;
        return !Chance(percentDisabled);
    }

    void MakeBindings(const std::string &node) {
        NodeBindings &bindings = m_machine.bindings[node];
        const unsigned without = Chance(20) ? 90 : 10;
        bindings.ip4 = MakeBinding(10, without);
        bindings.ip6 = MakeBinding(30, without + 10);
        if (m_machine.kind != Kind::Fresh)
            bindings.filter = MakeBinding(10, 30);
    }

    void MakeDevice(const std::string &node) {
        if (Chance(12))
            return;
        const bool isKnown = std::any_of(m_machine.devices.begin(), m_machine.devices.end(),
                                         [&](const Device &device) { return device.instanceId == node; });
        if (!isKnown)
            m_machine.devices.push_back(
                {.instanceId = node, .isPresent = !Chance(5), .changeFails = Chance(6), .isDisabled = Chance(2)});
    }

    /// An adapter breaks at some time, and may recover.
    void MakeTrouble() {
        if (m_machine.adapters.empty())
            return;
        const std::string node = Pick(m_machine.adapters).node;
        Reaction bad;
        bad.of = node;
        bad.when = Pick(std::array<When, 8>{When::Installed, When::Installed, When::Installed, When::Installed,
                                            When::Installed, When::Bound, When::Unbound, When::Slept});
        bad.nth = 1 + Below(7);
        bad.what = Pick(std::array<What, 6>{What::GoesOffline, What::GoesOffline, What::TurnsSilent, What::LosesAddress,
                                            What::LosesGateway, What::GoesBad});
        bad.node = node;
        m_machine.reactions.push_back(bad);
        if (Chance(60)) {
            Reaction good;
            good.of = node;
            good.when = Pick(
                std::array<When, 6>{When::Slept, When::Slept, When::Slept, When::Bound, When::Unbound, When::Enabled});
            good.nth = 2 + Below(7);
            good.what = What::GetsWell;
            good.node = node;
            m_machine.reactions.push_back(good);
        }
        if (Chance(25))
            MakeTrouble();
    }

    void MakeComingAndGoing() {
        const Adapter other = MakeAdapter();
        const bool comes = Chance(50) || m_machine.adapters.empty();
        Reaction reaction;
        reaction.when = Pick(std::array<When, 4>{When::Installed, When::Slept, When::Slept, When::Unbound});
        reaction.nth = 1 + Below(8);
        reaction.of = m_machine.adapters.empty() ? other.node : Pick(m_machine.adapters).node;
        reaction.what = comes ? What::Appears : What::Vanishes;
        reaction.node = comes ? other.node : Pick(m_machine.adapters).node;
        if (comes)
            m_machine.later.push_back(other);
        m_machine.reactions.push_back(reaction);
    }

    void MakeLock() {
        Reaction reaction;
        reaction.when = When::Slept;
        reaction.nth = 1 + Below(5);
        reaction.what = Chance(70) ? What::LockedByAnother : What::LockedByNamesake;
        m_machine.reactions.push_back(reaction);
        if (Chance(30)) {
            reaction.nth += 1 + Below(3);
            reaction.what = What::Unlocked;
            m_machine.reactions.push_back(reaction);
        }
    }

    void MakeFault() {
        Fault &fault = m_machine.fault;
        fault.onceInstalled = Chance(60);
        if (Chance(30) && !m_machine.reactions.empty()) {  // the recovery that disables devices finds none
            fault.function = Chance(50) ? "SetupDiGetClassDevsW" : "SetupDiSetClassInstallParamsW";
            fault.onceInstalled = true;
        } else if (Chance(60)) {
            fault.function = Pick(kOfAdapters);
        } else {
            fault.function = Pick(kOfAll);
            fault.onceInstalled = true;
        }
        fault.nth = 1 + Below(Chance(70) ? 5 : 20);
        if (fault.function.starts_with("Setup"))
            fault.nth = 1 + Below(3);
    }

    /// The second recovery can't list the devices at first, and falls back to IP.
    void MakeFruitlessRestart() {
        if (m_machine.adapters.empty())
            return;
        Adapter &adapter = m_machine.adapters[Below(static_cast<unsigned>(m_machine.adapters.size()))];
        adapter.media = 0;
        adapter.opens = true;
        m_machine.hasIp4 = true;
        NodeBindings &bindings = m_machine.bindings[adapter.node];
        bindings.ip4 = true;
        if (m_machine.kind != Kind::Fresh)
            bindings.filter = true;
        m_machine.reactions = {
            {.when = When::Installed, .of = "", .nth = 0, .what = What::GoesOffline, .node = adapter.node}};
        m_machine.fault = {.function = "SetupDiGetClassDevsW", .nth = 1, .onceInstalled = true};
    }

    std::mt19937 m_random;
    Machine m_machine;
    unsigned m_adapters = 0;
};

// ---- As text

const char *const kKindNames[] = {"fresh", "upgrade", "reinstall", "forced"};
const char *const kAnswerNames[] = {"succeeds", "fails", "asks for a reboot"};
const char *const kLoadedNames[] = {"ours", "none", "an old one", "an old one until it is unbound"};
const char *const kWhenNames[] = {"installed", "unbound", "bound", "disabled", "enabled", "slept"};
const char *const kWhatNames[] = {
    "goes offline", "goes online", "turns silent", "loses its address", "loses its gateway",    "goes bad",
    "gets well",    "vanishes",    "appears",      "locked by another", "locked by a namesake", "unlocked"};

template <std::size_t N, class Enumeration>
const char *NameOf(const char *const (&names)[N], Enumeration value) {
    return names[static_cast<std::size_t>(value)];
}

std::string BindingText(const std::optional<bool> &binding) {
    if (!binding)
        return "-";
    return *binding ? "on" : "off";
}

std::string MacText(const std::string &mac) {
    std::ostringstream text;
    for (const char c : mac)
        text << std::hex << (static_cast<unsigned>(c) & 0xFF) << ':';
    return text.str();
}

void DescribeAdapter(std::ostream &to, const char *name, const Adapter &adapter) {
    to << name << ' ' << adapter.node << " \"" << adapter.displayName.value_or("(no name)") << "\" " << adapter.bindName
       << " of " << adapter.componentId << (adapter.isVirtual ? " virtual" : "")
       << (adapter.isPhysical ? " physical" : "") << " mac=" << MacText(adapter.mac) << " ip=" << adapter.ip
       << " gateway=" << adapter.gateway << " status=" << adapter.deviceStatus
       << " media=" << (adapter.media ? std::to_string(*adapter.media) : "-")
       << (adapter.inIpHelper ? "" : " not in IP Helper") << (adapter.opens ? "" : " does not open") << '\n';
}

void DescribeReaction(std::ostream &to, const Reaction &reaction) {
    to << "when " << NameOf(kWhenNames, reaction.when) << ' ';
    if (reaction.when == When::Slept)
        to << reaction.nth << " times";
    else if (reaction.when != When::Installed)
        to << reaction.of;
    to << ": " << NameOf(kWhatNames, reaction.what) << ' ' << reaction.node << '\n';
}

/// Without those that no adapter has.
std::map<std::string, NodeBindings> BindingsOfAdapters(const Machine &machine) {
    std::map<std::string, NodeBindings> found;
    for (const std::vector<Adapter> *adapters : {&machine.adapters, &machine.later}) {
        for (const Adapter &adapter : *adapters)
            found[adapter.node] = machine.bindings.at(adapter.node);
    }
    return found;
}

/// For each element of the list: the machine without it.
template <class Item>
void LeaveOut(const Machine &machine, std::vector<Item> Machine::*list, std::vector<Machine> &smaller) {
    for (std::size_t i = 0; i < (machine.*list).size(); ++i) {
        Machine without = machine;
        (without.*list).erase((without.*list).begin() + static_cast<std::ptrdiff_t>(i));
        smaller.push_back(std::move(without));
    }
}

}  // namespace

Machine RandomMachine(unsigned seed) {
    return Generator(seed).Make();
}

std::string Describe(const Machine &machine) {
    std::ostringstream to;
    to << NameOf(kKindNames, machine.kind) << " on " << (machine.isServer ? "server " : "workstation ")
       << machine.osMajor << '.' << machine.osMinor << (machine.hasIp4 ? "" : ", without ms_tcpip")
       << (machine.hasIp6 ? "" : ", without ms_tcpip6") << ", Install " << NameOf(kAnswerNames, machine.answer)
       << ", then runs: " << NameOf(kLoadedNames, machine.loaded) << '\n';
    for (const Adapter &adapter : machine.adapters)
        DescribeAdapter(to, "adapter", adapter);
    for (const Adapter &adapter : machine.later)
        DescribeAdapter(to, "later", adapter);
    for (const auto &[node, bindings] : BindingsOfAdapters(machine))
        to << "bindings of " << node << ": ip4=" << BindingText(bindings.ip4) << " ip6=" << BindingText(bindings.ip6)
           << " filter=" << BindingText(bindings.filter) << '\n';
    for (const Device &device : machine.devices)
        to << "device " << device.instanceId << (device.isPresent ? "" : " absent")
           << (device.changeFails ? " can't be changed" : "") << (device.isDisabled ? " disabled" : "") << '\n';
    for (const Reaction &reaction : machine.reactions)
        DescribeReaction(to, reaction);
    if (!machine.fault.function.empty())
        to << machine.fault.function << " fails the " << machine.fault.nth << ". time"
           << (machine.fault.onceInstalled ? " after the installation" : "") << '\n';
    return to.str();
}

std::vector<Machine> SmallerMachines(const Machine &machine) {
    std::vector<Machine> smaller;
    LeaveOut(machine, &Machine::adapters, smaller);
    LeaveOut(machine, &Machine::later, smaller);
    LeaveOut(machine, &Machine::reactions, smaller);
    LeaveOut(machine, &Machine::devices, smaller);
    if (!machine.fault.function.empty()) {
        smaller.push_back(machine);
        smaller.back().fault = {};
    }
    if (machine.loaded != Machine::Loaded::Ours) {
        smaller.push_back(machine);
        smaller.back().loaded = Machine::Loaded::Ours;
    }
    return smaller;
}

}  // namespace Bindings
